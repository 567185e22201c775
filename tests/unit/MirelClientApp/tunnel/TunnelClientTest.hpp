#pragma once

#include "MirelClientApp/tunnel/TunnelClient.hpp"
#include "tests/support/wait_until.hpp"
#include "tests/unit/MirelClientApp/tunnel/TunnelPeer.hpp"

#include <chrono>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <thread>
#include <utility>

namespace mirelclient::test {

/// A client, the server that it dials, and the backends of its streams.
struct TunnelClientTest : testing::Test {
    static constexpr std::chrono::milliseconds K_SHORT_PAUSE{5};

    ~TunnelClientTest() override {
        if (client) {
            client->stop();
            EXPECT_TRUE(client->wait_until_streams_ended(std::chrono::seconds(20)));
        }
    }

    TunnelClient& start_client(TunnelTargets::SpawnTerminal spawn = &PtySession::spawn) {
        client = std::make_unique<TunnelClient>(server.address(), "a box", web.port(), vnc.port(),
                                                std::move(spawn), K_SHORT_PAUSE);
        client->start();
        return *client;
    }

    /// Takes the next connection and its first frame.
    TunnelPeer accept_tunnel() {
        auto tunnel = server.accept<TunnelPeer>();
        EXPECT_EQ(tunnel.read_frame(), (Received{FRAME_REGISTER, 0, "a box"}));
        return tunnel;
    }
    TunnelPeer start_and_accept(TunnelTargets::SpawnTerminal spawn = &PtySession::spawn) {
        start_client(std::move(spawn));
        return accept_tunnel();
    }

    /// Sends to a backend that doesn't read, until nothing moves any more.
    static std::thread fill_backend(TunnelPeer& tunnel, std::uint32_t stream, Peer const& backend) {
        std::thread source([&tunnel, stream] {
            std::string const piece(1 << 20, 'x');
            while (tunnel.send_data(stream, piece)) {
            }
        });
        tessaron::test::wait_until([&backend] { return is_full(backend.fd()); },
                                   "nothing moves any more");
        return source;
    }

    /// The stream's output until it holds the text.
    static std::string read_console_until(TunnelPeer& tunnel, std::uint32_t stream,
                                          std::string const& text) {
        std::string output;
        while (output.find(text) == std::string::npos) {
            Received const frame = tunnel.read_frame();
            if (frame.type != FRAME_DATA || frame.stream != stream ||
                frame.payload.size() < K_CONSOLE_HEADER_SIZE) {
                ADD_FAILURE() << "no \"" << text << "\" but " << testing::PrintToString(frame)
                              << " after " << output;
                break;
            }
            std::string const data = frame.payload.substr(K_CONSOLE_HEADER_SIZE);
            EXPECT_EQ(frame.payload, sub_frame(CONSOLE_BYTES, data));
            output += data;
        }
        return output;
    }
    /// Output that is still on its way, and then the end.
    static void expect_console_close(TunnelPeer& tunnel, std::uint32_t stream) {
        Received frame = tunnel.read_frame();
        while (frame.type == FRAME_DATA && frame.stream == stream) {
            frame = tunnel.read_frame();
        }
        EXPECT_EQ(frame, (Received{FRAME_CLOSE, stream, ""}));
    }

    Listener server;
    Listener web;
    Listener vnc;
    std::unique_ptr<TunnelClient> client;
};

} // namespace mirelclient::test
