#include "bus/record_fields.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace tessaron::bus {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using Bytes = std::vector<std::uint8_t>;

TEST(RecordFields, WhatIsWrittenReadsBack) {
    RecordReader const reader(RecordWriter()
                                  .text("name", "a = b\nc")
                                  .number("port", 7080)
                                  .number("offset", std::int64_t{-3})
                                  .lines({"one", "", "two"})
                                  .bytes());
    EXPECT_EQ(reader.text("name"), "a = b\nc");
    EXPECT_EQ(reader.number<std::uint16_t>("port"), 7080);
    EXPECT_EQ(reader.number<std::int64_t>("offset"), -3);
    EXPECT_THAT(reader.lines(), ElementsAre("one", "", "two"));
    EXPECT_EQ(reader.data(), "one\n\ntwo");
}

TEST(RecordFields, AMissingFieldHasItsDefault) {
    RecordReader const reader(RecordWriter().bytes());
    EXPECT_FALSE(reader.has("name"));
    EXPECT_EQ(reader.text("name", "none"), "none");
    EXPECT_EQ(reader.number<unsigned>("port", 5), 5U);
    EXPECT_THAT(reader.lines(), IsEmpty());
    EXPECT_FALSE(reader.ok());
}

TEST(RecordFields, ANumberThatIsNoneOrDoesNotFitIsRefused) {
    for (std::string const text : {"", "abc", "1x", " 1", "-1", "256", "99999999999999999999"}) {
        RecordReader const reader(RecordWriter().text("n", text).bytes());
        try {
            reader.number<std::uint8_t>("n");
            ADD_FAILURE() << "taken: " << text;
        } catch (std::invalid_argument const& error) {
            EXPECT_EQ(error.what(), "n is not a number: " + text);
        }
    }
}

TEST(RecordFields, WhatIsNoEnvelopeIsRefused) {
    EXPECT_THROW(RecordReader(Bytes{1, 2, 3}), std::invalid_argument);
    EXPECT_THROW(RecordReader(Bytes{}), std::invalid_argument);
}

TEST(RecordFields, AStatusIsOkAloneOrAnErrorWithItsText) {
    Envelope const ok = decode_envelope(RecordWriter().status(true, "").bytes());
    EXPECT_THAT(ok.fields, ElementsAre(testing::Pair("status", "ok")));
    Envelope const bad = decode_envelope(RecordWriter().status(false, "why").bytes());
    EXPECT_THAT(bad.fields,
                ElementsAre(testing::Pair("error", "why"), testing::Pair("status", "error")));
    RecordReader const reader(RecordWriter().status(true, "in part").bytes());
    EXPECT_TRUE(reader.ok());
    EXPECT_EQ(reader.error(), "in part");
}

TEST(RecordFields, EntriesFitUpToTheLastByte) {
    auto const size_of = [](std::string const& text) { return text.size(); };
    std::vector<std::string> texts{std::string(K_MAX_RECORD_DATA - 3, 'x'), "y", ""};
    EXPECT_EQ(count_that_fit(texts.begin(), texts.end(), size_of), 2U);
    EXPECT_EQ(count_that_fit(texts.rbegin(), texts.rend(), size_of), 2U);
    texts[1] = "yy";
    EXPECT_EQ(count_that_fit(texts.begin(), texts.end(), size_of), 1U);
    texts[0] += "xxx";
    EXPECT_EQ(count_that_fit(texts.begin(), texts.end(), size_of), 0U);
}

} // namespace
} // namespace tessaron::bus
