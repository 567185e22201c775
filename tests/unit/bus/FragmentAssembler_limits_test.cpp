#include "bus/FragmentAssembler.hpp"

#include "tests/support/fragments.hpp"

#include <algorithm>
#include <gtest/gtest.h>
#include <random>
#include <thread>
#include <vector>

namespace tessaron::bus {
namespace {

using namespace std::chrono_literals;
using Bytes = std::vector<std::uint8_t>;
using test::fragment;

constexpr FragmentAssembler::TimePoint K_START{1h};
constexpr std::size_t K_LARGE = std::size_t{64} * 1024;

constexpr std::uint16_t K_PARTS = 15;

/// 960 KiB of a message, of which the part `K_PARTS` is still missing.
void add_nearly_whole(FragmentAssembler& assembler, std::uint32_t msg_id) {
    for (std::uint16_t index = 0; index < K_PARTS; ++index) {
        EXPECT_FALSE(assembler.add(fragment(msg_id, index, false, Bytes(K_LARGE)), K_START));
    }
}

TEST(FragmentAssemblerLimits, OfTooManyAssembliesTheOldestGoes) {
    FragmentAssembler assembler;
    for (std::uint32_t id = 0; id < FragmentAssembler::K_MAX_ASSEMBLIES + 1; ++id) {
        EXPECT_FALSE(assembler.add(fragment(id, 0, false, {1}), K_START));
    }
    EXPECT_EQ(assembler.assemblies(), FragmentAssembler::K_MAX_ASSEMBLIES);
    EXPECT_TRUE(assembler.add(fragment(1, 1, true, {1}), K_START));
    EXPECT_FALSE(assembler.add(fragment(0, 1, true, {1}), K_START));
}

TEST(FragmentAssemblerLimits, WhatIsSetAsideForALikelyMessageIsHeldAndHasALimit) {
    FragmentAssembler assembler;
    EXPECT_TRUE(assembler.add(fragment(0, 0, true, Bytes(K_LARGE)), K_START));
    EXPECT_EQ(assembler.held_size(), 0U);
    EXPECT_FALSE(assembler.add(fragment(1, 0, false, {1}), K_START));
    EXPECT_EQ(assembler.held_size(), K_LARGE + FragmentAssembler::K_CHUNK_OVERHEAD);
    EXPECT_TRUE(assembler.add(fragment(0, 0, true, Bytes(16 * K_LARGE)), K_START));
    for (std::uint32_t id = 2; id <= 200; ++id) {
        EXPECT_FALSE(assembler.add(fragment(id, 0, false, {1}), K_START));
    }
    EXPECT_EQ(assembler.assemblies(), 200U);
    EXPECT_LE(assembler.held_size(), FragmentAssembler::K_MAX_EXPECTED_SIZE +
                                         200 * (FragmentAssembler::K_CHUNK_OVERHEAD + 1));
}

TEST(FragmentAssemblerLimits, OfAssembliesThatAreTooLargeTogetherTheOldestGoes) {
    constexpr std::uint32_t fit = FragmentAssembler::K_MAX_HELD_SIZE /
                                  (K_PARTS * (K_LARGE + FragmentAssembler::K_CHUNK_OVERHEAD));
    static_assert(fit < FragmentAssembler::K_MAX_ASSEMBLIES);
    FragmentAssembler assembler;
    for (std::uint32_t id = 1; id <= fit; ++id) {
        add_nearly_whole(assembler, id);
    }
    EXPECT_EQ(assembler.assemblies(), fit);
    add_nearly_whole(assembler, fit + 1);
    EXPECT_EQ(assembler.assemblies(), fit);
    EXPECT_LE(assembler.held_size(), FragmentAssembler::K_MAX_HELD_SIZE);

    EXPECT_TRUE(assembler.add(fragment(fit + 1, K_PARTS, true, {1}), K_START));
    EXPECT_TRUE(assembler.add(fragment(2, K_PARTS, true, {1}), K_START));
    EXPECT_FALSE(assembler.add(fragment(1, K_PARTS, true, {1}), K_START));
}

TEST(FragmentAssemblerLimits, TheAssemblyAtHandStaysThoughItIsTheOldest) {
    FragmentAssembler assembler;
    EXPECT_FALSE(assembler.add(fragment(1, 0, false, {1}), K_START));
    for (std::uint32_t id = 2; id <= FragmentAssembler::K_MAX_ASSEMBLIES; ++id) {
        EXPECT_FALSE(assembler.add(fragment(id, 0, false,
                                            Bytes(FragmentAssembler::K_MAX_HELD_SIZE /
                                                      FragmentAssembler::K_MAX_ASSEMBLIES -
                                                  FragmentAssembler::K_CHUNK_OVERHEAD)),
                                   K_START));
    }
    EXPECT_EQ(assembler.assemblies(), FragmentAssembler::K_MAX_ASSEMBLIES);
    EXPECT_FALSE(assembler.add(fragment(1, 1, false, Bytes(K_LARGE * 4, 1)), K_START));
    EXPECT_LT(assembler.assemblies(), FragmentAssembler::K_MAX_ASSEMBLIES);
    EXPECT_TRUE(assembler.add(fragment(1, 2, true, {1}), K_START));
}

TEST(FragmentAssemblerLimits, AMessageLargerThanANodeMaySendIsGivenUp) {
    FragmentAssembler assembler;
    std::size_t const half = FragmentAssembler::K_MAX_MESSAGE_SIZE / 2;
    EXPECT_FALSE(assembler.add(fragment(1, 0, false, Bytes(half)), K_START));
    EXPECT_FALSE(assembler.add(fragment(1, 1, false, Bytes(half + 1)), K_START));
    EXPECT_EQ(assembler.assemblies(), 0U);
    EXPECT_EQ(assembler.held_size(), 0U);

    EXPECT_FALSE(assembler.add(fragment(2, 0, false, Bytes(half)), K_START));
    EXPECT_TRUE(assembler.add(fragment(2, 1, true, Bytes(half)), K_START));
}

TEST(FragmentAssemblerLimits, TinyFragmentsAreNotHeldForFree) {
    FragmentAssembler assembler;
    std::size_t most = 0;
    for (std::uint32_t id = 1; id <= 5; ++id) {
        for (std::uint32_t index = 0; index <= 0xffff; ++index) {
            assembler.add(fragment(id, static_cast<std::uint16_t>(index), false, {1}), K_START);
        }
        most = std::max(most, assembler.held_size());
    }
    EXPECT_LE(most, FragmentAssembler::K_MAX_HELD_SIZE);
    EXPECT_LT(assembler.assemblies(), 5U);
}

TEST(FragmentAssemblerLimits, AFloodOfRandomFragmentsStaysWithinThem) {
    FragmentAssembler assembler;
    std::mt19937 random(2);
    auto now = K_START;
    for (int i = 0; i < 100'000; ++i) {
        now += std::chrono::microseconds(random() % 2000);
        assembler.add(fragment(static_cast<std::uint32_t>(random() % 2000),
                               static_cast<std::uint16_t>(random() % 300), random() % 50 == 0,
                               Bytes(random() % 4015)),
                      now);
        ASSERT_LE(assembler.assemblies(), FragmentAssembler::K_MAX_ASSEMBLIES);
        ASSERT_LE(assembler.held_size(), FragmentAssembler::K_MAX_HELD_SIZE);
    }
    EXPECT_GT(assembler.assemblies(), 0U);
    assembler.add(fragment(1, 0, true, {}), now + 1h);
    EXPECT_LE(assembler.assemblies(), 1U);
}

TEST(FragmentAssemblerLimits, ManyThreadsMayAddAtOnce) {
    FragmentAssembler assembler;
    std::vector<std::thread> threads;
    std::vector<int> whole(4);
    for (std::uint32_t i = 0; i < 4; ++i) {
        threads.emplace_back([&, i] {
            for (std::uint32_t id = 0; id < 300; ++id) {
                for (std::uint16_t index = 0; index < 3; ++index) {
                    WireFrame part = fragment(id, index, index == 2, {1});
                    part.source = i;
                    whole[i] += assembler.add(part, K_START) ? 1 : 0;
                }
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(whole, std::vector<int>(4, 300));
    EXPECT_EQ(assembler.held_size(), 0U);
}

} // namespace
} // namespace tessaron::bus
