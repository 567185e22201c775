#include "tests/unit/libraries/interfaces/multicast/MulticastTest.hpp"

namespace {

using namespace proto::interface::test;
using proto::interface::ByteAt;
using proto::interface::MulticastUdpInterface;
using Texts = std::vector<std::string>;

/// One that sends, and one to whose receiver "no..." is nothing.
class MulticastUnwanted : public testing::Test {
protected:
    MulticastUnwanted() {
        EXPECT_TRUE(sender_.open_multicast(K_GROUP, K_PORT));
        EXPECT_TRUE(receiver_.open_multicast(K_GROUP, K_PORT));
        receiver_.set_unwanted({{0, 'n'}, {1, 'o'}});
    }

    /// From the first datagram on, what is unwanted may be left out.
    void begin(Recorder const& recorder) {
        write(sender_, "first");
        recorder.wait_for("first");
    }
    /// Sends these, and tells which of them came.
    Texts arrivals_of(Texts const& datagrams, Recorder const& recorder) {
        std::size_t const before = recorder.all().size();
        for (std::string const& datagram : datagrams) {
            write(sender_, datagram);
        }
        write(sender_, "last");
        recorder.wait_for("last");
        Texts const all = recorder.all();
        return {all.begin() + static_cast<std::ptrdiff_t>(before), all.end() - 1};
    }

    WatchdogClock clock_;
    MulticastUdpInterface sender_;
    MulticastUdpInterface receiver_{never_timing_out()};
};

TEST_F(MulticastUnwanted, IsLeftOut) {
    Recorder const recorder(receiver_);
    begin(recorder);
    EXPECT_EQ(arrivals_of({"no", "now", "none"}, recorder), Texts());
}

TEST_F(MulticastUnwanted, IsOnlyWhatHasAllOfTheBytes) {
    Recorder const recorder(receiver_);
    begin(recorder);
    Texts const wanted{"n", "new", "so", "on", "yes"};
    EXPECT_EQ(arrivals_of(wanted, recorder), wanted);
}

TEST_F(MulticastUnwanted, IsHeardAgainWhenItIsTakenBack) {
    Recorder const recorder(receiver_);
    begin(recorder);
    receiver_.set_unwanted({});
    EXPECT_EQ(arrivals_of({"no"}, recorder), Texts{"no"});
}

TEST_F(MulticastUnwanted, IsHeardWhereThereIsAnotherReceiver) {
    Recorder const recorder(receiver_);
    begin(recorder);
    Recorder const another(receiver_);
    EXPECT_EQ(arrivals_of({"no"}, another), Texts{"no"});
}

TEST_F(MulticastUnwanted, CannotBeToldWhenItIsEncrypted) {
    proto::crypto::ChaCha20::Key const key{};
    Recorder const recorder(receiver_);
    begin(recorder);
    sender_.set_encryption_key(key);
    receiver_.set_encryption_key(key);
    EXPECT_EQ(arrivals_of({"no"}, recorder), Texts{"no"});
}

TEST_F(MulticastUnwanted, ShowsAfterSilenceThatTheMembershipIsAlive) {
    MulticastUdpInterface quiet(clock_.timing());
    ASSERT_TRUE(quiet.open_multicast(K_GROUP, K_PORT));
    quiet.set_unwanted({{0, 'n'}});
    Recorder const recorder(quiet);
    begin(recorder);
    clock_.wait_for_looks();
    write(sender_, "no");
    recorder.wait_for("no");
}

} // namespace
