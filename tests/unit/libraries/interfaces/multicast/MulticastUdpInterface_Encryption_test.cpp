#include "tests/unit/libraries/interfaces/multicast/MulticastTest.hpp"

#include <algorithm>
#include <numeric>

namespace {

using namespace proto::interface::test;
using proto::crypto::ChaCha20;
using proto::interface::MulticastUdpInterface;
using Texts = std::vector<std::string>;

class MulticastEncryption : public testing::Test {
protected:
    MulticastEncryption() {
        std::iota(key_.begin(), key_.end(), static_cast<unsigned char>(1));
        EXPECT_TRUE(a_.open_multicast(K_GROUP, K_PORT));
        EXPECT_TRUE(b_.open_multicast(K_GROUP, K_PORT));
    }

    ChaCha20::Key key_{};
    MulticastUdpInterface a_;
    MulticastUdpInterface b_;
};

TEST_F(MulticastEncryption, IsOffUntilThereIsAKeyAndAfterItIsDisabled) {
    EXPECT_FALSE(a_.is_encryption_enabled());
    a_.set_encryption_key(key_);
    EXPECT_TRUE(a_.is_encryption_enabled());
    a_.disable_encryption();
    EXPECT_FALSE(a_.is_encryption_enabled());
    Recorder const at_b(b_);
    write(a_, "plain");
    at_b.wait_for("plain");
}

TEST_F(MulticastEncryption, IsUndoneByWhoHasTheKey) {
    a_.set_encryption_key(key_);
    b_.set_encryption_key(key_);
    Recorder const at_b(b_);
    write(a_, "alone");
    write_frame(a_, {"in a ", "frame"});
    write(a_, std::string(65000, 'l'));
    at_b.wait_for_count(3);
    EXPECT_EQ(at_b.all(), (Texts{"alone", "in a frame", std::string(65000, 'l')}));
}

TEST_F(MulticastEncryption, PutsANonceOfItsOwnBeforeEachDatagram) {
    a_.set_encryption_key(key_);
    Recorder const at_b(b_);
    write(a_, "the same text");
    write(a_, "the same text");
    at_b.wait_for_count(2);
    Texts const datagrams = at_b.all();
    EXPECT_NE(datagrams[0].substr(0, 12), datagrams[1].substr(0, 12));
    for (std::string const& datagram : datagrams) {
        ASSERT_EQ(datagram.size(), 12 + std::string("the same text").size());
        ChaCha20::Nonce nonce;
        std::copy_n(datagram.begin(), nonce.size(), nonce.begin());
        std::vector<unsigned char> text(datagram.begin() + 12, datagram.end());
        ChaCha20(key_).apply(text, nonce, 0);
        EXPECT_EQ(std::string(text.begin(), text.end()), "the same text");
    }
}

TEST_F(MulticastEncryption, DropsDatagramsThatHoldNoMoreThanANonce) {
    b_.set_encryption_key(key_);
    Recorder const at_b(b_);
    write(a_, "x");
    write(a_, std::string(12, 'x'));
    a_.set_encryption_key(key_);
    write(a_, "m");
    at_b.wait_for_count(1);
    EXPECT_EQ(at_b.all(), Texts{"m"});
}

TEST_F(MulticastEncryption, PassesOnWhatAnotherKeyMakesOfIt) {
    a_.set_encryption_key(key_);
    ChaCha20::Key other = key_;
    other[31] ^= 1;
    b_.set_encryption_key(other);
    Recorder const at_b(b_);
    write(a_, "sixteen letters!");
    at_b.wait_for_count(1);
    EXPECT_EQ(at_b.all()[0].size(), 16U);
    EXPECT_NE(at_b.all()[0], "sixteen letters!");
}

TEST_F(MulticastEncryption, MayBeSwitchedWhileThereIsTraffic) {
    std::atomic<bool> stop{false};
    std::thread switching([&] {
        while (!stop) {
            a_.set_encryption_key(key_);
            a_.disable_encryption();
        }
    });
    for (int i = 0; i < 200; ++i) {
        write_frame(a_, {"some ", "text"});
    }
    stop = true;
    switching.join();
    Recorder const at_b(b_);
    write(a_, "plain again");
    at_b.wait_for("plain again");
}

} // namespace
