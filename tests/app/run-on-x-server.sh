#!/usr/bin/env bash
# Runs a command with DISPLAY set to a fresh Xvfb server of its own (24-bit
# colour, 1280x800): the window's tests on a real X server, with no window
# manager. Exits with the command's status, or 77 when Xvfb is not installed.
set -euo pipefail
if ! command -v xvfb-run >/dev/null 2>&1; then
    echo "skip: xvfb-run is not installed (scripts/bootstrap installs it)" >&2
    exit 77
fi
exec xvfb-run --auto-servernum --server-args="-screen 0 1280x800x24 -nolisten tcp" "$@"
