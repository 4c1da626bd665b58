// scripts/bench with tiny sizes and prebuilt binaries: every path it measures
// still runs, every file still arrives, and the report keeps its shape.
// Timing is never asserted here; only that each figure exists and is sane.
#include "CliProcess.h"
#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <cmath>
#include <fstream>
#include <map>

namespace kestrelvane {
namespace {

namespace fs = std::filesystem;
using namespace testing;

struct Outcome {
    int status = -1;
    std::string output;
};

Outcome runBench(const std::vector<std::string>& arguments) {
    const Finished bench = finish(*start(KV_BENCH_SCRIPT, arguments));
    return {bench.status, bench.text()};
}

const nlohmann::json* figure(const nlohmann::json& report, const std::string& kind,
                             const std::string& set) {
    for (const auto& entry : report["figures"]) {
        if (entry["kind"] == kind && entry["set"] == set) {
            return &entry;
        }
    }
    return nullptr;
}

bool positiveAndFinite(const nlohmann::json& value) {
    return value.is_number() && std::isfinite(value.get<double>()) && value.get<double>() > 0;
}

TEST(BenchScript, QuickRunMeasuresEveryPathNextToItsBaselinesWithEveryFileArriving) {
    const TemporaryFolder folder;
    const fs::path results = folder.path() / "results.json";
    const auto outcome =
        runBench({"--no-bootstrap", "--bin", fs::path(KV_CLI).parent_path().string(), "--runs", "1",
                  "--large-mib", "4", "--photos", "5", "--out", results.string()});
    if (outcome.status == 77) {
        GTEST_SKIP() << outcome.output;
    }
    ASSERT_EQ(outcome.status, 0) << outcome.output;

    std::ifstream in(results);
    const auto report = nlohmann::json::parse(in);
    const std::map<std::string, std::vector<std::string>> baselines = {
        {"large", {"sha256", "sha256_speed", "dd_fsync", "unix_socket", "rsync"}},
        {"photos", {"sha256", "sha256_speed", "rsync"}}};
    for (const auto& [set, names] : baselines) {
        for (const auto& name : names) {
            const auto* baseline = figure(report, name, set);
            ASSERT_NE(baseline, nullptr) << name << " " << set;
            EXPECT_TRUE(positiveAndFinite((*baseline)["MiB_per_s"])) << name << " " << set;
        }
        const std::vector<std::string> ours =
            set == "large" ? std::vector<std::string>{"tcp", "usb", "tcp_disk"}
                           : std::vector<std::string>{"tcp", "usb"};
        for (const auto& kind : ours) {
            const auto* measured = figure(report, kind, set);
            ASSERT_NE(measured, nullptr) << kind << " " << set;
            EXPECT_EQ((*measured)["files"], set == "large" ? 4 : 5);
            for (const auto& name : names) {
                EXPECT_TRUE(positiveAndFinite((*measured)["ratio_to"][name]))
                    << kind << " " << set << " to " << name;
            }
        }
    }
    EXPECT_EQ((*figure(report, "tcp", "large"))["bytes"], 4 << 20);
    // Without the release build there is no in-process engine figure.
    EXPECT_EQ(figure(report, "socketpair", "large"), nullptr);
    for (const auto* side : {"tcp-large-sender", "tcp-large-receiver", "tcp_disk-large-receiver"}) {
        EXPECT_TRUE(positiveAndFinite(report["peak_resident_bytes"][side])) << side;
    }
    EXPECT_FALSE(report["targets"].empty());
}

TEST(BenchScript, UnknownArgumentsAndMissingProgramsAreRefusedWithUsageStatus) {
    const auto unknown = runBench({"--no-bootstrap", "--fast"});
    EXPECT_EQ(unknown.status, 2);
    EXPECT_NE(unknown.output.find("unknown argument '--fast'"), std::string::npos)
        << unknown.output;

    const TemporaryFolder empty;
    const auto missing = runBench({"--no-bootstrap", "--bin", empty.path().string()});
    if (missing.status == 77) {
        GTEST_SKIP() << missing.output;
    }
    EXPECT_EQ(missing.status, 2);
    EXPECT_NE(missing.output.find("no " + (empty.path() / "kestrelvane").string()),
              std::string::npos)
        << missing.output;
}

} // namespace
} // namespace kestrelvane
