#include "app/utilities/json_value.hpp"

#include <functional>
#include <gtest/gtest.h>
#include <pthread.h>
#include <stdexcept>

namespace tessaron::json {
namespace {

constexpr std::size_t K_MEGABYTE = 1 << 20;
constexpr std::size_t K_DEPTH = K_MEGABYTE / 2;

std::string repeat(std::string const& part, std::size_t count) {
    std::string text;
    text.reserve(part.size() * count);
    for (std::size_t i = 0; i < count; ++i) {
        text += part;
    }
    return text;
}

/// Runs `work` on a thread whose stack would hold a few hundred frames of a recursion, not
/// hundreds of thousands.
void run_on_small_stack(std::function<void()> const& work) {
    pthread_attr_t attributes;
    ASSERT_EQ(pthread_attr_init(&attributes), 0);
    ASSERT_EQ(pthread_attr_setstacksize(&attributes, 128 * 1024), 0);
    pthread_t thread{};
    auto* const argument = const_cast<std::function<void()>*>(&work);
    auto* const body = +[](void* function) -> void* {
        (*static_cast<std::function<void()>*>(function))();
        return nullptr;
    };
    ASSERT_EQ(pthread_create(&thread, &attributes, body, argument), 0);
    EXPECT_EQ(pthread_join(thread, nullptr), 0);
    pthread_attr_destroy(&attributes);
}

void expect_harmless_round_trip(std::string const& text) {
    auto value = Value::parse(text);
    Value const copy = value;
    Value assigned;
    assigned = copy;
    EXPECT_TRUE(assigned.dump() == text);
    value = Value();
}

std::string error_of(std::string const& text) {
    try {
        Value::parse(text);
        return "parsed";
    } catch (std::invalid_argument const& error) {
        return error.what();
    }
}

TEST(JsonDepth, DeepArraysParseDumpCopyAndDieOnASmallStack) {
    run_on_small_stack(
        [] { expect_harmless_round_trip(std::string(K_DEPTH, '[') + std::string(K_DEPTH, ']')); });
}

TEST(JsonDepth, DeepObjectsParseDumpCopyAndDieOnASmallStack) {
    run_on_small_stack([] {
        std::size_t const depth = K_MEGABYTE / 6;
        expect_harmless_round_trip(repeat("{\"a\":", depth) + "1" + std::string(depth, '}'));
    });
}

TEST(JsonDepth, DeepDocumentsDoNoHarmOnADefaultStack) {
    expect_harmless_round_trip(std::string(K_DEPTH, '[') + std::string(K_DEPTH, ']'));
    expect_harmless_round_trip(repeat("[{\"a\":", 100'000) + "[]" + repeat("}]", 100'000));
}

TEST(JsonDepth, MegabyteOfOpeningBracketsFailsAsAnyUnfinishedText) {
    run_on_small_stack([] {
        EXPECT_EQ(error_of(std::string(K_MEGABYTE, '[')), "tiny_json: unexpected end of input");
        EXPECT_EQ(error_of(repeat("{\"a\":", K_MEGABYTE / 5)),
                  "tiny_json: unexpected end of input");
    });
}

TEST(JsonDepth, DeepPartialResultsOfAFailingParseDieOnASmallStack) {
    run_on_small_stack([] {
        // The deep member is complete when the text around it fails.
        std::string const deep = std::string(K_DEPTH / 2, '[') + std::string(K_DEPTH / 2, ']');
        EXPECT_EQ(error_of("[" + deep + ",x]"), "stod");
        EXPECT_EQ(error_of("{\"a\":" + deep + ",\"a\":" + deep + "]"),
                  "tiny_json: expected '}' at offset " + std::to_string(2 * deep.size() + 10));
        EXPECT_EQ(error_of(deep + "]"), "tiny_json: trailing garbage after top-level value at "
                                        "offset " +
                                            std::to_string(deep.size()));
    });
}

TEST(JsonDepth, DeepDuplicateMemberIsDroppedOnASmallStack) {
    run_on_small_stack([] {
        std::string const deep = std::string(K_DEPTH / 2, '[') + std::string(K_DEPTH / 2, ']');
        EXPECT_EQ(Value::parse("{\"a\":1,\"a\":" + deep + "}").dump(), "{\"a\":1}");
    });
}

TEST(JsonDepth, DeepValueOfAThreadLocalDiesWithItsThread) {
    run_on_small_stack([] {
        thread_local Value t_value;
        t_value = Value::parse(std::string(K_DEPTH, '[') + std::string(K_DEPTH, ']'));
        EXPECT_EQ(t_value.as_array().size(), 1U);
    });
}

TEST(JsonDepth, InnerPartOfADeepValueOutlivesTheRest) {
    run_on_small_stack([] {
        auto value = Value::parse(std::string(1000, '[') + "42" + std::string(1000, ']'));
        for (int i = 0; i < 999; ++i) {
            value = value.as_array().front();
        }
        EXPECT_EQ(value.dump(), "[42]");
    });
}

} // namespace
} // namespace tessaron::json
