#pragma once

#include "libraries/vocabulary/IInterface.hpp"
#include "libraries/vocabulary/Mutex.hpp"

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <thread>
#include <utility>
#include <vector>

namespace tessaron::test {

/// A bus in memory: what one port sends is delivered to all of them, the sender's included, whole
/// and in order, by one reader thread, as multicast on one machine does at its best. A tamper
/// function may make it worse.
///
/// Ownership: owns its ports; outlives what uses them.
/// Thread safety: safe from any thread.
class LoopbackBus {
public:
    using Datagram = std::vector<std::uint8_t>;
    /// What arrives in place of what was sent, in this order. Runs on the reader.
    using Tamper = std::function<std::vector<Datagram>(Datagram)>;

    class Port final : public proto::interface::IInterface {
    public:
        explicit Port(LoopbackBus& bus) : IInterface("loopback"), bus_(bus) {}

        bool write(CustomSpan<unsigned char> bytes, std::chrono::milliseconds) override {
            bus_.send({bytes.begin(), bytes.end()});
            return true;
        }
        bool is_open() override { return true; }
        bool open() override { return true; }
        bool close() override { return true; }
        long read(unsigned char*, unsigned long) override { return -1; }
        bool keeps_boundaries() const noexcept override { return true; }
        void begin_burst() override { ++begun_bursts; }
        void end_burst() override { ++ended_bursts; }
        void deliver(Datagram& datagram) { notify_receivers({datagram.data(), datagram.size()}); }

        std::atomic<int> begun_bursts{0};
        std::atomic<int> ended_bursts{0};

    private:
        LoopbackBus& bus_;
    };

    LoopbackBus() : reader_([this] { run(); }) {}
    ~LoopbackBus() {
        {
            MutexLock lock(mutex_);
            running_ = false;
        }
        changed_.notify_all();
        reader_.join();
    }
    LoopbackBus(LoopbackBus const&) = delete;
    LoopbackBus& operator=(LoopbackBus const&) = delete;

    Port& add_port() {
        MutexLock lock(mutex_);
        ports_.push_back(std::make_unique<Port>(*this));
        return *ports_.back();
    }

    void set_tamper(Tamper tamper) {
        MutexLock lock(mutex_);
        tamper_ = std::make_shared<Tamper const>(std::move(tamper));
    }

    /// Every `write` of a port is one: the frames of the bus leave in one piece.
    void send(Datagram datagram) {
        {
            MutexLock lock(mutex_);
            sent_.push_back(datagram);
            queue_.push_back(std::move(datagram));
        }
        changed_.notify_all();
    }

    std::vector<Datagram> sent() const {
        MutexLock lock(mutex_);
        return sent_;
    }
    std::size_t sent_count() const {
        MutexLock lock(mutex_);
        return sent_.size();
    }

    /// Returns when all that was sent before has reached the ports' receivers.
    void wait_until_delivered() {
        MutexLock lock(mutex_);
        changed_.wait(lock.native(), [this]() TESSARON_REQUIRES(mutex_) {
            return queue_.empty() && !is_delivering_;
        });
    }

private:
    void run() {
        MutexLock lock(mutex_);
        while (true) {
            changed_.wait(lock.native(), [this]() TESSARON_REQUIRES(mutex_) {
                return !running_ || !queue_.empty();
            });
            if (!running_) {
                return;
            }
            Datagram datagram = std::move(queue_.front());
            queue_.pop_front();
            is_delivering_ = true;
            std::vector<Port*> ports;
            for (auto const& port : ports_) {
                ports.push_back(port.get());
            }
            auto const tamper = tamper_;
            lock.unlock();
            std::vector<Datagram> arriving;
            if (tamper) {
                arriving = (*tamper)(std::move(datagram));
            } else {
                arriving.push_back(std::move(datagram));
            }
            for (Datagram const& arrived : arriving) {
                for (Port* const port : ports) {
                    Datagram copy = arrived;
                    port->deliver(copy);
                }
            }
            lock.lock();
            is_delivering_ = false;
            changed_.notify_all();
        }
    }

    mutable Mutex mutex_;
    std::condition_variable changed_;
    std::vector<std::unique_ptr<Port>> ports_ TESSARON_GUARDED_BY(mutex_);
    std::deque<Datagram> queue_ TESSARON_GUARDED_BY(mutex_);
    std::vector<Datagram> sent_ TESSARON_GUARDED_BY(mutex_);
    std::shared_ptr<Tamper const> tamper_ TESSARON_GUARDED_BY(mutex_);
    bool running_ TESSARON_GUARDED_BY(mutex_) = true;
    bool is_delivering_ TESSARON_GUARDED_BY(mutex_) = false;
    std::thread reader_;
};

} // namespace tessaron::test
