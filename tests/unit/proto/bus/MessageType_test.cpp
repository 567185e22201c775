#include "proto/bus/MessageType.hpp"

#include <gtest/gtest.h>
#include <iomanip>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

namespace proto::bus {
namespace {

std::string printed(int value) {
    std::ostringstream stream;
    stream << static_cast<MessageType>(value);
    return stream.str();
}

TEST(MessageType, PrintsNameAndValueOfEachType) {
    std::vector<std::pair<int, std::string>> const names{
        {0x10, "SUBSCRIBE_REQUEST(0x10)"},
        {0x11, "SUBSCRIBE_RESPONSE(0x11)"},
        {0x12, "UNSUBSCRIBE_REQUEST(0x12)"},
        {0x20, "DISCOVERY_REQUEST(0x20)"},
        {0x21, "DISCOVERY_RESPONSE(0x21)"},
        {0x30, "EVENT(0x30)"},
        {0x40, "REQUEST(0x40)"},
        {0x41, "RESPONSE(0x41)"},
    };
    for (auto const& [value, name] : names) {
        EXPECT_EQ(printed(value), name);
    }
}

TEST(MessageType, PrintsTheValueOfAnUnknownType) {
    EXPECT_EQ(printed(0x7f), "UNKNOWN(0x7f)");
    EXPECT_EQ(printed(0xff), "UNKNOWN(0xff)");
    EXPECT_EQ(printed(0), "UNKNOWN(0x0)");
}

TEST(MessageType, PrintingLeavesTheStreamsOwnBaseAlone) {
    std::ostringstream stream;
    stream << std::dec << MessageType::EVENT << ' ' << 16;
    EXPECT_EQ(stream.str(), "EVENT(0x30) 16");
}

} // namespace
} // namespace proto::bus
