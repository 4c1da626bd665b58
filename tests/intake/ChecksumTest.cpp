#include "KestrelvaneKit/intake/Checksum.h"

#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <memory>

namespace kestrelvane {
namespace {

namespace fs = std::filesystem;
using testing::TemporaryFolder;

constexpr const char* emptyDigest =
    "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855";
constexpr const char* abcDigest =
    "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad";

Bytes patterned(std::size_t size) {
    Bytes bytes(size);
    for (std::size_t i = 0; i < size; ++i) {
        bytes[i] = static_cast<std::uint8_t>((i * 131 + i / 977) & 0xFF);
    }
    return bytes;
}

fs::path writeFile(const fs::path& path, const Bytes& bytes) {
    std::ofstream(path, std::ios::binary)
        .write(reinterpret_cast<const char*>(bytes.data()),
               static_cast<std::streamsize>(bytes.size()));
    return path;
}

/// The digest as the coreutils tool reports it, or "" when it cannot run
/// (which fails the comparison: coreutils is always there).
std::string sha256sumOf(const fs::path& path) {
    const std::string command = "sha256sum '" + path.string() + "' 2>/dev/null";
    std::unique_ptr<FILE, int (*)(FILE*)> pipe(::popen(command.c_str(), "r"), ::pclose);
    if (!pipe) {
        return "";
    }
    char digest[65] = {};
    if (std::fread(digest, 1, 64, pipe.get()) != 64) {
        return "";
    }
    return std::string(digest, 64);
}

TEST(Checksum, KnownAnswersInMemoryAndFromFiles) {
    EXPECT_EQ(Checksum::sha256Hex(ByteView{}), emptyDigest);
    EXPECT_EQ(Checksum::sha256Hex(asBytes("abc")), abcDigest);

    TemporaryFolder folder;
    EXPECT_EQ(Checksum::sha256HexOfFile(writeFile(folder.path() / "empty", {})), emptyDigest);
    EXPECT_EQ(Checksum::sha256HexOfFile(writeFile(folder.path() / "abc", toBytes("abc"))),
              abcDigest);
}

TEST(Checksum, FilesAroundTheChunkSizeAgreeWithTheInMemoryDigestAndSha256sum) {
    TemporaryFolder folder;
    for (const std::size_t size : {std::size_t{1'048'575}, std::size_t{1'048'576},
                                   std::size_t{1'048'577}, std::size_t{3 * 1'048'576 + 5}}) {
        SCOPED_TRACE(size);
        const Bytes bytes = patterned(size);
        const fs::path file = writeFile(folder.path() / std::to_string(size), bytes);
        const std::string inMemory = Checksum::sha256Hex(bytes);
        EXPECT_EQ(Checksum::sha256HexOfFile(file), inMemory);
        EXPECT_EQ(inMemory, sha256sumOf(file));
    }
}

TEST(Checksum, FilesThatCannotBeReadFailInsteadOfHashingNothing) {
    TemporaryFolder folder;
    try {
        (void)Checksum::sha256HexOfFile(folder.path() / "missing.jpg");
        FAIL() << "a missing file was hashed";
    } catch (const fs::filesystem_error& error) {
        EXPECT_EQ(error.code(), std::errc::no_such_file_or_directory);
        EXPECT_EQ(error.path1(), folder.path() / "missing.jpg");
    }
    try {
        (void)Checksum::sha256HexOfFile(folder.path());
        FAIL() << "a folder was hashed";
    } catch (const fs::filesystem_error& error) {
        EXPECT_EQ(error.code(), std::errc::is_a_directory);
    }
}

TEST(Sha256Hasher, PiecesFedInOrderGiveTheDigestOfTheWhole) {
    const Bytes bytes = patterned(200'003);
    for (const std::size_t piece :
         {std::size_t{1}, std::size_t{63}, std::size_t{64}, std::size_t{65'536}, bytes.size()}) {
        SCOPED_TRACE(piece);
        Sha256Hasher hasher;
        hasher.update(ByteView{}); // an empty piece changes nothing
        for (std::size_t at = 0; at < bytes.size(); at += piece) {
            hasher.update(ByteView(bytes).subspan(at, std::min(piece, bytes.size() - at)));
        }
        EXPECT_EQ(hasher.finalizeHex(), Checksum::sha256Hex(bytes));
    }
    EXPECT_EQ(Sha256Hasher().finalizeHex(), emptyDigest);
}

} // namespace
} // namespace kestrelvane
