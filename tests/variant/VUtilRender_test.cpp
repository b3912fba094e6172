// SPDX-License-Identifier: MIT
// XML and friendly renderings.
#include <cstdint>
#include <string>

#include <gtest/gtest.h>

#include "VUtil.h"
#include "ValueTestSupport.h"

using namespace testvalue;

namespace {

std::string xml(const KibVariantHolder& v, int depth = 0) {
    CStdStr out;
    VUtil::VariantToXML(&v.get(), depth, out);
    return out;
}

std::string friendly(const KibVariantHolder& v) {
    CStdStr out;
    VUtil::VariantToFriendlyString(&v.get(), out);
    return out;
}

KibVariantHolder date(double d) { return r8(VT_DATE, d); }

}  // namespace

TEST(VUtilRender, ScalarsInBothForms) {
    const auto tag = [](const char* vt, const char* text) {
        return std::string("<var vt=\"") + vt + "\">" + text + "</var>\n";
    };
    const struct {
        KibVariantHolder value;
        std::string xml;
        const char* friendly;
    } cases[] = {
        {KibVariantHolder(), "<var vt=\"VT_EMPTY\" />\n", "(empty)"},
        {scalar(VT_NULL), "<var vt=\"VT_NULL\" />\n", "(null)"},
        {scalar(VT_I1, 0xFD), tag("VT_I1", "-3"), "-3"},
        {scalar(VT_UI1, 200), tag("VT_UI1", "200"), "200"},
        {make(VT_I2, [](VARIANT& v) { v.iVal = -2; }), tag("VT_I2", "-2"), "-2"},
        {scalar(VT_UI2, 65535), tag("VT_UI2", "65535"), "65535"},
        {i4(-7), tag("VT_I4", "-7"), "-7"},
        {scalar(VT_UI4, 4294967295u), tag("VT_UI4", "4294967295"), "4294967295"},
        {scalar(VT_I8, static_cast<std::uint64_t>(-5000000000)), tag("VT_I8", "-5000000000"),
         "-5000000000"},
        {scalar(VT_UI8, UINT64_MAX), tag("VT_UI8", "18446744073709551615"), "18446744073709551615"},
        {make(VT_R4, [](VARIANT& v) { v.fltVal = 1.5f; }), tag("VT_R4", "1.500000"), "1.500000"},
        {r8(VT_R8, -0.25), tag("VT_R8", "-0.250000"), "-0.250000"},
        {str("a<b&\"c\""), tag("VT_BSTR", "a&lt;b&amp;&quot;c&quot;"),
         "\"a&lt;b&amp;&quot;c&quot;\""},
        {str("it's >"), tag("VT_BSTR", "it&apos;s &gt;"), "\"it&apos;s &gt;\""},
        {scalar(VT_BOOL, 0xFFFF), tag("VT_BOOL", "TRUE"), "true"},
        {scalar(VT_BOOL, 0), tag("VT_BOOL", "FALSE"), "false"},
        {date(25569.5), tag("VT_DATE", "1970-01-01 12:00:00"), "(date)1970-01-01 12:00:00"},
        {scalar(VT_VARIANT), "<var vt=\"12 (unknown)\" />\n", "(unknown vt 12)"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(xml(c.value), c.xml);
        EXPECT_EQ(friendly(c.value), c.friendly);
    }
    EXPECT_EQ(xml(i4(1), 2), "      <var vt=\"VT_I4\">1</var>\n");
}

TEST(VUtilRender, XmlArrays) {
    EXPECT_EQ(xml(variants(i4(1), KibVariantHolder())),
              "<var vt=\"VT_ARRAY|VT_VARIANT\" count=\"2\">\n"
              "   <var vt=\"VT_I4\">1</var>\n"
              "   <var vt=\"VT_EMPTY\" />\n"
              "</var>\n");
    EXPECT_EQ(xml(variants(strings({"x&y"})), 1),
              "   <var vt=\"VT_ARRAY|VT_VARIANT\" count=\"1\">\n"
              "      <var vt=\"VT_ARRAY|VT_BSTR\" count=\"1\">\n"
              "         <var vt=\"VT_BSTR\">x&amp;y</var>\n"
              "      </var>\n"
              "   </var>\n");
    // Typed arrays: short ones list their elements, the others give only their count.
    const auto one = [](const char* vt, const char* value) {
        return std::string("<var vt=\"VT_ARRAY|") + vt + "\" count=\"1\">\n   <var vt=\"" + vt +
               "\">" + value + "</var>\n</var>\n";
    };
    const std::pair<KibVariantHolder, std::string> arrays[] = {
        {typed<std::uint16_t>(VT_UI2, {9}), one("VT_UI2", "9")},
        {typed<std::int32_t>(VT_I4, {-4}), one("VT_I4", "-4")},
        {typed<std::uint32_t>(VT_UI4, {4000000000u}), one("VT_UI4", "4000000000")},
        {typed<std::int64_t>(VT_I8, {-1}), one("VT_I8", "-1")},
        {typed<std::uint64_t>(VT_UI8, {UINT64_MAX}), one("VT_UI8", "18446744073709551615")},
        {typed<std::uint8_t>(VT_UI1, std::vector<std::uint8_t>(10)),
         "<var vt=\"VT_ARRAY|VT_UI1\" count=\"10\" />\n"},
        {typed<float>(VT_R4, {1, 2}), "<var vt=\"VT_ARRAY|VT_R4\" count=\"2\" />\n"},
        {typed<double>(VT_R8, {}), "<var vt=\"VT_ARRAY|VT_R8\" count=\"0\" />\n"},
        {typed<double>(VT_DATE, {1}), "<var vt=\"8199 (unknown)\" />\n"},
    };
    for (const auto& [value, text] : arrays) EXPECT_EQ(xml(value), text);
}

TEST(VUtilRender, FailuresBecomeErrorElementsAndDumpLabelsTheXml) {
    const KibVariantHolder oneBased = typed<std::int32_t>(VT_I4, {1}, 1);
    EXPECT_EQ(xml(variants(i4(1), oneBased)),
              "<var vt=\"VT_ARRAY|VT_VARIANT\" count=\"2\">\n"
              "   <var vt=\"VT_I4\">1</var>\n"
              "   <Error>Array is not zero indexed! (VUtil::GetArrayLength)</Error>\n"
              "</var>\n");
    EXPECT_EQ(friendly(oneBased),
              "<Error>Array is not zero indexed! (VUtil::GetArrayLength)</Error>");
    CStdStr out;
    VUtil::VariantToXML(nullptr, out);
    EXPECT_EQ(out, "<Error>no value to render</Error>\n");
    EXPECT_EQ(VUtil::Dump(&i4(3).get(), "reply"), "Dumping reply: <var vt=\"VT_I4\">3</var>\n");
}

TEST(VUtilRender, FriendlyArrays) {
    EXPECT_EQ(friendly(typed<std::uint8_t>(VT_UI1, {1, 2, 3})), "[3 UI1 elements]");
    EXPECT_EQ(friendly(strings({"a", "b"})), "[\n    \"a\",\n    \"b\"\n]");
    EXPECT_EQ(friendly(variants(i4(1), variants(str("x")))),
              "[\n    1,\n    [\n        \"x\"\n    ]\n]");
    EXPECT_EQ(friendly(variants()), "[\n]");
}
