#include "KestrelvaneKit/intake/Checksum.h"

#include "support/CaughtError.h"
#include "support/TemporaryFolder.h"
#include "support/TestFiles.h"

#include <gtest/gtest.h>

#include <cstdlib>

namespace kestrelvane {
namespace {

namespace fs = std::filesystem;
using testing::pattern;

/// The digest as coreutils reports it.
std::string sha256sumOf(const fs::path& path) {
    const fs::path sum = path.string() + ".sha256";
    (void)std::system(("sha256sum '" + path.string() + "' >'" + sum.string() + "'").c_str());
    return testing::readText(sum).substr(0, 64);
}

TEST(Checksum, FilesOfAnySizeAgreeWithTheInMemoryDigestAndSha256sumAndUnreadableOnesFail) {
    EXPECT_EQ(Checksum::sha256Hex(asBytes("abc")),
              "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
    const testing::TemporaryFolder folder;
    for (const std::size_t size : {std::size_t{0}, std::size_t{1'048'575}, std::size_t{1'048'576},
                                   std::size_t{1'048'577}, std::size_t{3 * 1'048'576 + 5}}) {
        SCOPED_TRACE(size);
        const Bytes bytes = pattern(size, 1);
        const fs::path file = testing::writeFile(folder.path() / std::to_string(size), bytes);
        EXPECT_EQ(Checksum::sha256HexOfFile(file), Checksum::sha256Hex(bytes));
        EXPECT_EQ(Checksum::sha256HexOfFile(file), sha256sumOf(file));
    }
    // A file that cannot be read fails instead of hashing nothing.
    for (const fs::path& path : {folder.path() / "missing.jpg", folder.path()}) {
        const auto error =
            testing::errorOf<fs::filesystem_error>([&] { (void)Checksum::sha256HexOfFile(path); });
        ASSERT_TRUE(error) << path << " was hashed";
        EXPECT_EQ(error->path1(), path);
    }
}

} // namespace
} // namespace kestrelvane
