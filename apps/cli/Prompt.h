#pragma once

#include "KestrelvaneKit/session/Pairing.h"

#include <chrono>
#include <cstdio>
#include <optional>
#include <string>

namespace kestrelvane::cli {

/// How long a person has to answer a pairing prompt.
inline constexpr std::chrono::minutes answerTime{5};

/// Shows a pairing offer on `out` — the peer's quoted name, its fingerprint,
/// then the code alone on its line — and reads the code the person types on
/// standard input. What was typed before the prompt is discarded (on a
/// terminal). No answer within answerTime, standard input at its end, or a
/// program in the background of its terminal: an empty answer, which
/// matches no code.
std::string askForCode(std::FILE* out, const std::string& intro, const PairingOffer& offer,
                       const std::string& otherScreen);

} // namespace kestrelvane::cli
