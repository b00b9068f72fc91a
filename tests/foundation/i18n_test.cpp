#include <gtest/gtest.h>

#include <fl/i18n.h>

#include <string>

using fl::ustring;

TEST(I18nTest, ConvertsTextAndSkipsInvalidUnitsOnly) {
    const std::string text = u8"Gr\u00FC\u00DFe \u20AC \U0001D11E";
    const ustring utf16 = fl::i18n::to_ustring(text);
    EXPECT_EQ(utf16, u"Gr\u00FC\u00DFe \u20AC \U0001D11E");
    EXPECT_EQ(fl::i18n::to_string(utf16), text);
    EXPECT_EQ(fl::i18n::to_wstring(utf16), L"Gr\u00FC\u00DFe \u20AC \U0001D11E");
    EXPECT_EQ(fl::i18n::to_ustring(std::string("a\xFF-\xC3(")), u"a-(");
    EXPECT_EQ(fl::i18n::to_string(ustring{u'a', char16_t(0xD800), u'b'}), "ab");
}
