// The CRC-32 of 4 KiB buffers: `CrcFast` beside the table of `CrcSoft`, on the same bytes, which is
// checked. The two take turns round by round and the ratio is taken within a round, so that a
// machine busy with other things disturbs both alike. Usage: crc_bench [rounds]
#include "bench/support/statistics.hpp"
#include "libraries/crc/crcFast/CrcFast.hpp"
#include "libraries/crc/crcSoft/CrcSoft.hpp"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;
using Bytes = tessaron::CustomSpan<unsigned char>;

constexpr int K_DEFAULT_ROUNDS = 31;
constexpr std::size_t K_BUFFER_SIZE = 4096;
constexpr std::size_t K_BUFFERS = 8;
/// Chained from buffer to buffer, so that no result can be left out.
constexpr int K_SOFT_REPETITIONS = 50;
constexpr int K_FAST_REPETITIONS = 2000;

double nanoseconds_a_buffer(proto::ICrc const& crc, std::vector<unsigned char>& bytes,
                            int repetitions) {
    unsigned int value = 0;
    auto const start = Clock::now();
    for (int i = 0; i < repetitions; ++i) {
        for (std::size_t buffer = 0; buffer < K_BUFFERS; ++buffer) {
            value = crc.append(value, {bytes.data() + buffer * K_BUFFER_SIZE, K_BUFFER_SIZE});
        }
    }
    std::chrono::duration<double, std::nano> const time = Clock::now() - start;
    bytes[0] ^= static_cast<unsigned char>(value); // the next round depends on this one
    return time.count() / repetitions / static_cast<double>(K_BUFFERS);
}

} // namespace

int main(int argc, char** argv) {
    int const rounds = argc > 1 ? std::atoi(argv[1]) : K_DEFAULT_ROUNDS;
    std::mt19937 generator(1);
    std::vector<unsigned char> bytes(K_BUFFERS * K_BUFFER_SIZE);
    for (unsigned char& byte : bytes) {
        byte = static_cast<unsigned char>(generator());
    }
    proto::CrcSoft const soft;
    proto::CrcFast const fast;
    std::vector<double> soft_times;
    std::vector<double> fast_times;
    std::vector<double> ratios;
    for (int round = 0; round < rounds; ++round) {
        soft_times.push_back(nanoseconds_a_buffer(soft, bytes, K_SOFT_REPETITIONS));
        fast_times.push_back(nanoseconds_a_buffer(fast, bytes, K_FAST_REPETITIONS));
        ratios.push_back(soft_times.back() / fast_times.back());
        Bytes const all(bytes.data(), bytes.size());
        if (soft.calc(all) != fast.calc(all)) {
            std::fprintf(stderr, "the results differ\n");
            return 1;
        }
    }
    std::printf("CRC-32 of 4 KiB: table %.0f ns, fast %.0f ns, %.1f times as fast\n",
                bench::median(soft_times), bench::median(fast_times), bench::median(ratios));
    return 0;
}
