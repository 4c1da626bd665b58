#pragma once

#include "KestrelvaneKit/intake/Checksum.h"
#include "KestrelvaneKit/wire/Bytes.h"
#include "support/MemoryStream.h"

#include <benchmark/benchmark.h>
#include <openssl/evp.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <unistd.h>
#include <vector>

namespace kestrelvane::bench {

inline Bytes randomBytes(std::size_t size, unsigned seed) {
    Bytes bytes(size);
    std::mt19937_64 random(seed);
    for (std::size_t i = 0; i + 8 <= size; i += 8) {
        const std::uint64_t value = random();
        std::memcpy(bytes.data() + i, &value, 8);
    }
    return bytes;
}

/// A fresh folder on tmpfs when there is one, so that the disk is not what is measured.
inline std::filesystem::path scratchFolder(const std::string& prefix) {
    const std::filesystem::path base = std::filesystem::is_directory("/dev/shm")
                                           ? "/dev/shm"
                                           : std::filesystem::temp_directory_path();
    std::string pattern = (base / (prefix + "-XXXXXX")).string();
    if (::mkdtemp(pattern.data()) == nullptr) {
        throw std::runtime_error("mkdtemp failed");
    }
    return pattern;
}

/// `count` files of `size` random bytes in a scratch folder, removed afterwards.
class SourceFiles {
public:
    SourceFiles(int count, std::uint64_t size) : folder_(scratchFolder("kv-bench-src")) {
        const Bytes chunk = randomBytes(16 << 20, 7);
        for (int i = 0; i < count; ++i) {
            paths_.push_back(folder_ / ("IMG_" + std::to_string(i) + ".mov"));
            std::ofstream out(paths_.back(), std::ios::binary);
            for (std::uint64_t written = 0; written < size;) {
                const auto piece = std::min<std::uint64_t>(chunk.size(), size - written);
                // Vary each file's bytes so no two hash alike.
                out.write(reinterpret_cast<const char*>(chunk.data()),
                          static_cast<std::streamsize>(piece));
                written += piece;
            }
            out.put(static_cast<char>(i));
            total_ += size + 1;
        }
    }
    ~SourceFiles() {
        std::error_code ignored;
        std::filesystem::remove_all(folder_, ignored);
    }
    const std::vector<std::filesystem::path>& paths() const { return paths_; }
    std::uint64_t totalBytes() const { return total_; }

private:
    std::filesystem::path folder_;
    std::vector<std::filesystem::path> paths_;
    std::uint64_t total_ = 0;
};

/// OpenSSL's own one-shot SHA-256 on one core, measured once per run.
inline double sha256BytesPerSecond() {
    static const double rate = [] {
        const Bytes data = randomBytes(256 << 20, 3);
        unsigned char digest[EVP_MAX_MD_SIZE];
        unsigned int length = 0;
        const auto start = std::chrono::steady_clock::now();
        EVP_Digest(data.data(), data.size(), digest, &length, EVP_sha256(), nullptr);
        const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start;
        return static_cast<double>(data.size()) / elapsed.count();
    }();
    return rate;
}

/// MB/s of `bytesPerIteration` and its ratio to the SHA-256 rate of this run.
inline void reportThroughput(benchmark::State& state, std::uint64_t bytesPerIteration,
                             double shaBytesPerSecond) {
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * bytesPerIteration));
    state.counters["MBps"] = benchmark::Counter(
        static_cast<double>(state.iterations() * bytesPerIteration) / 1'048'576.0,
        benchmark::Counter::kIsRate);
    state.counters["sha256_MBps"] = shaBytesPerSecond / 1'048'576.0;
    state.counters["ratio_to_sha256"] = benchmark::Counter(
        static_cast<double>(state.iterations() * bytesPerIteration) / shaBytesPerSecond,
        benchmark::Counter::kIsRate);
}

inline auto memoryStreamPair() {
    return testing::makeMemoryStreamPair();
}

} // namespace kestrelvane::bench
