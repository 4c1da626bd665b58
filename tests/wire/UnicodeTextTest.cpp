#include "KestrelvaneKit/wire/UnicodeText.h"

#include <gtest/gtest.h>

namespace kestrelvane {
namespace {

TEST(UnicodeText, TrimsWhiteSpaceAndLineBreaksOfAnyScriptAtBothEndsOnly) {
    EXPECT_EQ(UnicodeText::trimmed("  Trip to Rome \n"), "Trip to Rome");
    // No-break space, ideographic space, line separator, tab.
    EXPECT_EQ(UnicodeText::trimmed("\u00a0\u3000Kyōto\u2028\t"), "Kyōto");
    EXPECT_EQ(UnicodeText::trimmed(" \u3000\r\n"), "");
    // A zero-width joiner is not white space; invalid UTF-8 is left as it is.
    EXPECT_EQ(UnicodeText::trimmed("\u200dA\u200d"), "\u200dA\u200d");
    EXPECT_EQ(UnicodeText::trimmed(" \xff\xfe "), "\xff\xfe");
}

TEST(UnicodeText, OnlyCanonicallyEquivalentSpellingsAreEqual) {
    EXPECT_TRUE(UnicodeText::canonicallyEqual("Caf\u00e9", "Cafe\u0301"));
    EXPECT_EQ(UnicodeText::nfc("Cafe\u0301"), "Caf\u00e9");
    EXPECT_FALSE(UnicodeText::canonicallyEqual("Cafe", "Caf\u00e9"));
    // A compatibility variant is another name: the ligature "ﬁ" is not "fi".
    EXPECT_FALSE(UnicodeText::canonicallyEqual("\ufb01le", "file"));
    EXPECT_EQ(UnicodeText::nfc("\ufb01le"), "\ufb01le");
}

} // namespace
} // namespace kestrelvane
