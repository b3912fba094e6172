// SPDX-License-Identifier: MIT
#include "KibCodec.h"

#include <cmath>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "TestValues.h"

using namespace testvalues;

namespace {

std::string bytes(std::initializer_list<int> list) {
    std::string out;
    for (int b : list) out.push_back(static_cast<char>(b));
    return out;
}

KibVariantHolder roundTrip(const VARIANT& value) {
    std::string frame;
    std::string error;
    EXPECT_EQ(KibCodec::encodeRequest("Caller", value, frame, error), KIB_OK) << error;
    KibRequestFrame request;
    EXPECT_EQ(KibCodec::decodeRequest(frame.data(), frame.size(), request, error), KIB_OK) << error;
    EXPECT_EQ(request.caller, "Caller");
    return std::move(request.value);
}

// Every value kind the bus carries, nested arrays and both kinds of empty string
// included (the comparison tells a null string from an empty one).
std::vector<KibVariantHolder> everyKindOfValue() {
    KibVariantHolder r4;
    r4.out()->vt = VT_R4;
    const_cast<VARIANT&>(r4.get()).fltVal = 1.5f;
    KibVariantHolder list[] = {
        KibVariantHolder(),
        scalar(VT_NULL, 0),
        scalar(VT_I1, static_cast<std::uint8_t>(-5)),
        scalar(VT_UI1, 250),
        scalar(VT_I2, static_cast<std::uint16_t>(-30000)),
        scalar(VT_UI2, 65535),
        i4(-2147483647 - 1),
        scalar(VT_UI4, 4294967295u),
        scalar(VT_I8, 0x8000000000000000ull),
        scalar(VT_UI8, 0xFFFFFFFFFFFFFFFFull),
        std::move(r4),
        r8(VT_R8, -0.1),
        r8(VT_DATE, 46348.416666666664),
        scalar(VT_BOOL, static_cast<std::uint16_t>(VARIANT_TRUE)),
        scalar(VT_BOOL, 0),
        str("text"),
        str(std::string("a\0b", 3)),
        str(""),
        nullStr(),
        typed<std::int8_t>(VT_I1, {-1, 2}),
        typed<std::uint8_t>(VT_UI1, {0, 255, 7}),
        typed<std::int16_t>(VT_I2, {-2, 3}),
        typed<std::uint16_t>(VT_UI2, {65535}),
        typed<std::int32_t>(VT_I4, {1, -2, 2147483647}),
        typed<std::uint32_t>(VT_UI4, {4294967295u, 0}),
        typed<std::int64_t>(VT_I8, {-9, 1ll << 40}),
        typed<std::uint64_t>(VT_UI8, {~0ull}),
        typed<float>(VT_R4, {0.25f, -8.0f}),
        typed<double>(VT_R8, {3.25, 1e300}),
        typed<double>(VT_DATE, {25569.0, 25569.5}),
        typed<VARIANT_BOOL>(VT_BOOL, {VARIANT_TRUE, VARIANT_FALSE}),
        typed<std::int32_t>(VT_I4, {}),
        typed<std::int32_t>(VT_I4, {4, 5}, 1),
        strings({"a", "", nullptr}),
        variants(i4(1), variants(str("inner"), typed<std::int32_t>(VT_I4, {7})), nullStr(),
                 KibVariantHolder()),
    };
    std::vector<KibVariantHolder> values;
    for (KibVariantHolder& value : list) values.push_back(std::move(value));
    return values;
}

}  // namespace

TEST(KibCodecTest, EveryValueKindSurvivesARoundTrip) {
    for (const KibVariantHolder& value : everyKindOfValue()) {
        SCOPED_TRACE(value.vt());
        const KibVariantHolder back = roundTrip(value.get());
        EXPECT_TRUE(sameValue(value.get(), back.get()));
    }
}

TEST(KibCodecTest, SmallRequestHasExactBytes) {
    std::string frame;
    std::string error;
    ASSERT_EQ(KibCodec::encodeRequest("A", i4(5).get(), frame, error), KIB_OK);
    EXPECT_EQ(frame, bytes({0x94, 0x01, 0x00, 0xA1, 'A', 0x92, 0x03, 0x05}));
}

TEST(KibCodecTest, ReplyAndAnnouncementRoundTrip) {
    KibReply reply;
    reply.status = KIB_E_SERVICE_EXCEPTION;
    reply.errorKind = KibErrorKind::KibException;
    reply.errorCode = 1;
    reply.errorText = "SetLogSource: invalid addr";
    std::string frame;
    std::string error;
    ASSERT_EQ(KibCodec::encodeReply(reply, frame, error), KIB_OK);
    KibReply back;
    ASSERT_EQ(KibCodec::decodeReply(frame.data(), frame.size(), back, error), KIB_OK) << error;
    EXPECT_EQ(back.status, KIB_E_SERVICE_EXCEPTION);
    EXPECT_EQ(back.errorKind, KibErrorKind::KibException);
    EXPECT_EQ(back.errorCode, 1);
    EXPECT_EQ(back.errorText, "SetLogSource: invalid addr");

    KibAnnounceFrame announce{"RemoteLogger", 42, true, {"AppendLog", "SetLogSource"}};
    ASSERT_EQ(KibCodec::encodeAnnounce(announce, frame, error), KIB_OK);
    KibAnnounceFrame announced;
    ASSERT_EQ(KibCodec::decodeAnnounce(frame.data(), frame.size(), announced, error), KIB_OK);
    EXPECT_EQ(announced.satellite, "RemoteLogger");
    EXPECT_EQ(announced.instance, 42u);
    EXPECT_TRUE(announced.leaving);
    EXPECT_EQ(announced.services, announce.services);
}

TEST(KibCodecTest, EveryTruncatedPrefixIsRefused) {
    std::vector<KibVariantHolder> values = everyKindOfValue();
    std::string frame;
    std::string error;
    ASSERT_EQ(KibCodec::encodeRequest("Caller", values.back().get(), frame, error), KIB_OK);
    for (std::size_t size = 0; size < frame.size(); ++size) {
        KibRequestFrame request;
        error.clear();
        EXPECT_EQ(KibCodec::decodeRequest(frame.data(), size, request, error), KIB_E_BAD_FRAME)
            << "prefix of " << size;
        EXPECT_FALSE(error.empty());
        EXPECT_EQ(request.value.vt(), VT_EMPTY);
    }
}

TEST(KibCodecTest, HostileFramesAreRefused) {
    struct Case {
        const char* what;
        std::string frame;
    };
    std::string deep;
    for (int i = 0; i < 1000; ++i) deep += '\x91';
    std::string deepValue = bytes({0x94, 0x01, 0x00, 0xA0});
    for (int i = 0; i < 20; ++i) deepValue += bytes({0x92, 0xCD, 0x20, 0x0C, 0x91});
    const std::vector<Case> cases = {
        {"array that asks for 4 G elements",
         bytes({0x94, 0x01, 0x00, 0xA0, 0xDD, 0xFF, 0xFF, 0xFF, 0xFF})},
        {"value array that asks for 4 G elements",
         bytes({0x94, 0x01, 0x00, 0xA0, 0x92, 0xCD, 0x20, 0x03, 0xDD, 0xFF, 0xFF, 0xFF, 0xFF})},
        {"string that asks for 4 GiB", bytes({0x94, 0x01, 0x00, 0xDB, 0xFF, 0xFF, 0xFF, 0xFF})},
        {"binary that asks for 4 GiB",
         bytes({0x94, 0x01, 0x00, 0xA0, 0x92, 0xCD, 0x20, 0x11, 0xC6, 0xFF, 0xFF, 0xFF, 0xFF})},
        {"raw nesting 1000 deep", deep},
        {"values nested 20 deep", deepValue},
        {"version 2", bytes({0x94, 0x02, 0x00, 0xA0, 0x92, 0x00, 0xC0})},
        {"reply where a request is expected", bytes({0x94, 0x01, 0x01, 0xA0, 0x92, 0x00, 0xC0})},
        {"three fields", bytes({0x93, 0x01, 0x00, 0xA0})},
        {"not an array", bytes({0x01})},
        {"map frame", bytes({0x81, 0x01, 0x00})},
        {"trailing byte", bytes({0x94, 0x01, 0x00, 0xA0, 0x92, 0x00, 0xC0, 0xC0})},
        {"caller is an integer", bytes({0x94, 0x01, 0x00, 0x05, 0x92, 0x00, 0xC0})},
        {"type is a string", bytes({0x94, 0x01, 0x00, 0xA0, 0x92, 0xA1, 'x', 0xC0})},
        {"unknown type 99", bytes({0x94, 0x01, 0x00, 0xA0, 0x92, 0x63, 0xC0})},
        {"I4 above 32 bits",
         bytes({0x94, 0x01, 0x00, 0xA0, 0x92, 0x03, 0xCF, 0, 0, 1, 0, 0, 0, 0, 0})},
        {"I2 out of range", bytes({0x94, 0x01, 0x00, 0xA0, 0x92, 0x02, 0xCE, 0, 1, 0, 0})},
        {"UI4 negative", bytes({0x94, 0x01, 0x00, 0xA0, 0x92, 0x13, 0xFF})},
        {"bool payload for I4", bytes({0x94, 0x01, 0x00, 0xA0, 0x92, 0x03, 0xC3})},
        {"integer payload for BSTR", bytes({0x94, 0x01, 0x00, 0xA0, 0x92, 0x08, 0x01})},
        {"string payload for R8", bytes({0x94, 0x01, 0x00, 0xA0, 0x92, 0x05, 0xA1, '1'})},
        {"payload for VT_EMPTY", bytes({0x94, 0x01, 0x00, 0xA0, 0x92, 0x00, 0x01})},
        {"scalar VT_VARIANT", bytes({0x94, 0x01, 0x00, 0xA0, 0x92, 0x0C, 0xC0})},
        {"array of VT_EMPTY", bytes({0x94, 0x01, 0x00, 0xA0, 0x92, 0xCD, 0x20, 0x00, 0x90})},
        {"lower bound on a scalar", bytes({0x94, 0x01, 0x00, 0xA0, 0x93, 0x03, 0x01, 0x01})},
        {"wrong element in I4 array",
         bytes({0x94, 0x01, 0x00, 0xA0, 0x92, 0xCD, 0x20, 0x03, 0x92, 0x01, 0xA1, 'x'})},
        {"bad element in VARIANT array", bytes({0x94, 0x01, 0x00, 0xA0, 0x92, 0xCD, 0x20, 0x0C,
                                                0x92, 0x92, 0x08, 0xA0, 0x92, 0x63, 0xC0})},
        {"ext value", bytes({0x94, 0x01, 0x00, 0xA0, 0xD4, 0x01, 0x00})},
        {"empty frame", std::string()},
    };
    for (const Case& c : cases) {
        KibRequestFrame request;
        std::string error;
        EXPECT_EQ(KibCodec::decodeRequest(c.frame.data(), c.frame.size(), request, error),
                  KIB_E_BAD_FRAME)
            << c.what;
        EXPECT_FALSE(error.empty()) << c.what;
        EXPECT_EQ(request.value.vt(), VT_EMPTY) << c.what;
    }
}

TEST(KibCodecTest, LimitsBindBothDirections) {
    KibCodecLimits limits;
    limits.maxFrameBytes = 64;
    const KibVariantHolder big = typed<std::uint8_t>(VT_UI1, std::vector<std::uint8_t>(100, 1));
    std::string frame;
    std::string error;
    EXPECT_EQ(KibCodec::encodeRequest("A", big.get(), frame, error, limits), KIB_E_TOO_LARGE);
    ASSERT_EQ(KibCodec::encodeRequest("A", big.get(), frame, error), KIB_OK);
    KibRequestFrame request;
    EXPECT_EQ(KibCodec::decodeRequest(frame.data(), frame.size(), request, error, limits),
              KIB_E_TOO_LARGE);

    KibVariantHolder deep = i4(1);
    for (int i = 0; i < 20; ++i) {
        deep = variants(deep);
    }
    EXPECT_EQ(KibCodec::encodeRequest("A", deep.get(), frame, error), KIB_E_BAD_VALUE);
    EXPECT_EQ(KibCodec::encodeRequest("A", scalar(99, 0).get(), frame, error), KIB_E_BAD_VALUE);
}

namespace {

// A value whose innermost scalar sits `levels` VARIANT levels deep (1: the scalar).
KibVariantHolder nestedValue(int levels) {
    KibVariantHolder value = i4(1);
    for (int i = 1; i < levels; ++i) value = variants(value);
    return value;
}

// A request frame for `value` encoded without the depth limit.
std::string unlimitedRequest(const VARIANT& value) {
    KibCodecLimits unlimited;
    unlimited.maxValueDepth = 64;
    std::string frame;
    std::string error;
    EXPECT_EQ(KibCodec::encodeRequest("A", value, frame, error, unlimited), KIB_OK) << error;
    return frame;
}

int decodeStatus(const std::string& frame, std::string& error) {
    KibRequestFrame request;
    return KibCodec::decodeRequest(frame.data(), frame.size(), request, error);
}

}  // namespace

TEST(KibCodecTest, SixteenLevelsPassAndSeventeenAreRefusedBothWays) {
    std::string frame;
    std::string error;
    const KibVariantHolder sixteen = nestedValue(16);
    ASSERT_EQ(KibCodec::encodeRequest("A", sixteen.get(), frame, error), KIB_OK) << error;
    EXPECT_TRUE(sameValue(roundTrip(sixteen.get()).get(), sixteen.get()));

    const KibVariantHolder seventeen = nestedValue(17);
    EXPECT_EQ(KibCodec::encodeRequest("A", seventeen.get(), frame, error), KIB_E_BAD_VALUE);
    EXPECT_EQ(decodeStatus(unlimitedRequest(seventeen.get()), error), KIB_E_BAD_FRAME);
    EXPECT_EQ(error, "values nested too deeply");
}

// Encoders that hold numbers as doubles write a whole one as an integer: R4, R8 and
// DATE take an integer that they hold exactly and refuse one they would round.
TEST(KibCodecTest, FloatTypesTakeIntegersTheyHoldExactly) {
    struct Case {
        const char* what;
        std::string payload;  // after the value's array(2) and type
        VARTYPE type;
        double expected;  // NaN: refused
    };
    const double refused = std::nan("");
    const std::vector<Case> cases = {
        {"DATE from uint16", bytes({0xCD, 0xB5, 0x0C}), VT_DATE, 46348.0},
        {"R8 from negative fixint", bytes({0xFD}), VT_R8, -3.0},
        {"R8 from 2^53", bytes({0xCF, 0, 0x20, 0, 0, 0, 0, 0, 0}), VT_R8, 9007199254740992.0},
        {"R8 from 2^53 + 1", bytes({0xCF, 0, 0x20, 0, 0, 0, 0, 0, 1}), VT_R8, refused},
        {"R8 from -2^63", bytes({0xD3, 0x80, 0, 0, 0, 0, 0, 0, 0}), VT_R8, -9223372036854775808.0},
        {"R8 from 2^64 - 1", bytes({0xCF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}), VT_R8,
         refused},
        {"R4 from 2^24", bytes({0xCE, 0x01, 0, 0, 0}), VT_R4, 16777216.0},
        {"R4 from 2^24 + 1", bytes({0xCE, 0x01, 0, 0, 1}), VT_R4, refused},
    };
    for (const Case& c : cases) {
        const std::string frame =
            bytes({0x94, 0x01, 0x00, 0xA0, 0x92, static_cast<int>(c.type)}) + c.payload;
        KibRequestFrame request;
        std::string error;
        const int status = KibCodec::decodeRequest(frame.data(), frame.size(), request, error);
        if (std::isnan(c.expected)) {
            EXPECT_EQ(status, KIB_E_BAD_FRAME) << c.what;
            EXPECT_EQ(error, "payload of the wrong type for value type " + std::to_string(c.type))
                << c.what;
            continue;
        }
        ASSERT_EQ(status, KIB_OK) << c.what << ": " << error;
        ASSERT_EQ(request.value.vt(), c.type) << c.what;
        const VARIANT& v = request.value.get();
        EXPECT_EQ(c.type == VT_R4 ? v.fltVal : v.dblVal, c.expected) << c.what;
    }
}

TEST(KibCodecTest, MapsAndExtensionTypesAreNamedInTheError) {
    const std::vector<std::pair<std::string, std::string>> cases = {
        {bytes({0x94, 0x01, 0x00, 0xA0, 0x81, 0x01, 0x02}),
         "MessagePack maps are not used in frames"},
        {bytes({0x94, 0x01, 0x00, 0xA0, 0x92, 0x05, 0xD4, 0x01, 0x00}),
         "MessagePack extension types are not used in frames"},
        {bytes({0x94, 0x01, 0x00, 0xA0, 0xDC, 0x01, 0x00}),
         "array, string or binary above its size limit"},
    };
    for (const auto& [frame, text] : cases) {
        std::string error;
        EXPECT_EQ(decodeStatus(frame, error), KIB_E_BAD_FRAME) << text;
        EXPECT_EQ(error, text);
    }
}
