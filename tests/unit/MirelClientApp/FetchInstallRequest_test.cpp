#include "MirelClientApp/FetchInstallRequest.hpp"

#include "bus/Envelope.hpp"

#include <gtest/gtest.h>
#include <map>
#include <stdexcept>

namespace {

using tessaron::bus::encode_envelope;
using Fields = std::map<std::string, std::string>;

TEST(FetchInstallRequest, HasAFieldForEachMember) {
    auto const payload = encode_envelope({{{"name", "a"},
                                           {"version", "1"},
                                           {"arch", "any"},
                                           {"channel", "beta"},
                                           {"start_after_install", "0"}},
                                          {}});
    auto const request = FetchInstallRequest::parse(payload);
    EXPECT_EQ(request.name, "a");
    EXPECT_EQ(request.version, "1");
    EXPECT_EQ(request.arch, "any");
    EXPECT_EQ(request.channel, "beta");
    EXPECT_FALSE(request.start_after_install);
    EXPECT_EQ(request.build(), payload);
}

TEST(FetchInstallRequest, WhatIsMissingIsEmptyAndThePackageStarts) {
    auto const request = FetchInstallRequest::parse(encode_envelope({}));
    EXPECT_EQ(request.name + request.version + request.arch + request.channel, "");
    EXPECT_TRUE(request.start_after_install);
    EXPECT_TRUE(FetchInstallRequest::parse(request.build()).start_after_install);
}

TEST(FetchInstallRequest, OnlyExactlyZeroKeepsThePackageFromBeingStarted) {
    for (char const* const value : {"", "1", "00", "false"}) {
        auto const payload = encode_envelope({Fields{{"start_after_install", value}}, {}});
        EXPECT_TRUE(FetchInstallRequest::parse(payload).start_after_install) << value;
    }
}

TEST(FetchInstallRequest, APayloadThatIsNoEnvelopeIsRefused) {
    EXPECT_THROW(FetchInstallRequest::parse({}), std::invalid_argument);
}

} // namespace
