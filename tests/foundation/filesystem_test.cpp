#include <gtest/gtest.h>

#include <fl/filesystem.h>

using fl::ustring;
using fl::filesystem::codecvt_ustring_to_narrow_string;

TEST(FilesystemTest, PathConversionSkipsOrRefusesInvalidUnits) {
    const ustring unpaired = {u'a', char16_t(0xD800), u'b', char16_t(0xDC00)};
    EXPECT_EQ(codecvt_ustring_to_narrow_string(true).convert(unpaired), "ab");
    EXPECT_EQ(codecvt_ustring_to_narrow_string(false).convert(u"\u00e9"), u8"\u00e9");
    EXPECT_THROW(codecvt_ustring_to_narrow_string(false).convert(unpaired),
                 fl::i18n::conversion_error);
}
