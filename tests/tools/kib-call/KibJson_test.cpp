// SPDX-License-Identifier: MIT
#include "KibJson.h"

#include <QJsonArray>
#include <QJsonDocument>

#include <gtest/gtest.h>

#include "TestValues.h"

using namespace testvalues;

namespace {

KibVariantHolder parse(const char* json) {
    const QJsonDocument document = QJsonDocument::fromJson(QByteArray("[") + json + "]");
    KibVariantHolder value;
    QString error;
    EXPECT_TRUE(KibJson::toVariant(document.array().at(0), value, error))
        << json << ": " << error.toStdString();
    return value;
}

std::string print(const VARIANT& value) {
    QJsonArray wrapper{KibJson::fromVariant(value)};
    const QByteArray text = QJsonDocument(wrapper).toJson(QJsonDocument::Compact);
    return text.mid(1, text.size() - 2).toStdString();
}

}  // namespace

TEST(KibJsonTest, DocumentedNotationsGiveTheirTypes) {
    EXPECT_TRUE(sameValue(parse("\"text\"").get(), str("text").get()));
    EXPECT_TRUE(sameValue(parse("-5").get(), i4(-5).get()));
    EXPECT_TRUE(sameValue(parse("2.5").get(), r8(VT_R8, 2.5).get()));
    EXPECT_TRUE(sameValue(parse("{\"r8\":2}").get(), r8(VT_R8, 2.0).get()));
    EXPECT_TRUE(sameValue(parse("{\"str\":null}").get(), nullStr().get()));
    EXPECT_TRUE(
        sameValue(parse("{\"i4[]\":[1,2]}").get(), typed<std::int32_t>(VT_I4, {1, 2}).get()));
    const KibVariantHolder date = parse("{\"date\":\"2026-11-22T10:00:00Z\"}");
    EXPECT_EQ(date.vt(), VT_DATE);
    EXPECT_NEAR(date.get().date, 46348.0 + 10.0 / 24.0, 1e-9);  // days since 1899-12-30
    EXPECT_EQ(parse("null").vt(), VT_NULL);
    EXPECT_EQ(parse("{\"empty\":null}").vt(), VT_EMPTY);
    EXPECT_EQ(parse("[true, \"a\"]").vt(), VT_ARRAY | VT_VARIANT);
}

TEST(KibJsonTest, PrintedValuesReadBackUnchanged) {
    const char* samples[] = {
        "[1,2.5,\"x\",null,true,{\"str\":null},{\"empty\":null}]",
        "{\"date\":\"2026-11-22T10:00:00Z\"}",
        "{\"date\":\"2026-11-22T10:00:00.250Z\"}",
        "{\"ui8\":\"18446744073709551615\"}",
        "{\"i8\":-5}",
        "{\"r8\":3}",
        "{\"r4\":0.5}",
        "{\"str[]\":[\"a\",null]}",
        "{\"ui1[]\":[0,255]}",
        "{\"bool[]\":[true,false]}",
        "{\"date[]\":[\"1970-01-01T00:00:00Z\"]}",
        "[[1,[\"deep\"]],{\"i2[]\":[]}]",
        "{\"i4[]\":[4],\"lbound\":1}",
    };
    for (const char* sample : samples) {
        const KibVariantHolder value = parse(sample);
        const std::string printed = print(value.get());
        EXPECT_TRUE(sameValue(value.get(), parse(printed.c_str()).get()))
            << sample << " -> " << printed;
    }
    EXPECT_EQ(print(parse("{\"date\":\"2026-11-22T10:00:00Z\"}").get()),
              "{\"date\":\"2026-11-22T10:00:00Z\"}");
}

TEST(KibJsonTest, MeaninglessNotationsAreRefused) {
    const char* bad[] = {
        "{\"i4\":99999999999}", "{\"i2\":1.5}",        "{\"ui4\":-1}", "{\"date\":\"tomorrow\"}",
        "{\"bogus\":1}",        "{\"i4\":1,\"i2\":2}", "{}",           "{\"str\":5}",
        "{\"i4[]\":[1,\"x\"]}", "{\"var\":1}",         "{\"bool\":1}", "{\"i4[]\":3}",
    };
    for (const char* json : bad) {
        const QJsonDocument document = QJsonDocument::fromJson(QByteArray("[") + json + "]");
        KibVariantHolder value;
        QString error;
        EXPECT_FALSE(KibJson::toVariant(document.array().at(0), value, error)) << json;
        EXPECT_FALSE(error.isEmpty()) << json;
        EXPECT_EQ(value.vt(), VT_EMPTY) << json;
    }
}
