// The fake TX device through the real SoapySDR library: rate rounding, paced writes, the
// recording, one injected and one real underflow, and the status file.
#include <SoapySDR/Device.hpp>
#include <SoapySDR/Errors.hpp>
#include <SoapySDR/Logger.hpp>
#include <SoapySDR/Modules.hpp>
#include <gtest/gtest.h>
#include <stdlib.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;

// A scratch directory under $TMPDIR, removed at the end.
struct TempDir {
    fs::path path;
    TempDir() {
        std::string name = (fs::temp_directory_path() / "tervane-fake-XXXXXX").string();
        EXPECT_NE(::mkdtemp(name.data()), nullptr) << name;
        path = name;
    }
    ~TempDir() { std::error_code ec; fs::remove_all(path, ec); }
};

std::string slurp(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

std::string logged;  // the stream status indicators logged
void capture(const SoapySDRLogLevel level, const char* message) {
    if (level == SOAPY_SDR_SSI) logged += message;
}

TEST(SoapyFake, PacesRecordsAndReports) {
    ASSERT_EQ(SoapySDR::loadModule(TERVANE_SOAPY_FAKE), "");
    EXPECT_TRUE(SoapySDR::Device::enumerate("driver=other").empty());
    EXPECT_EQ(SoapySDR::Device::enumerate("driver=tervanefake,record=x").at(0).at("record"), "x");
    EXPECT_THROW(SoapySDR::Device::make("driver=tervanefake,fail=make"), std::runtime_error);
    SoapySDR::registerLogHandler(capture);

    TempDir dir;
    const std::string record = (dir.path / "rec.cs16").string();
    SoapySDR::Device* dev = SoapySDR::Device::make(
        "driver=tervanefake,master_clock=32e6,buffer=32768,underflow_at=8000,record=" + record);
    dev->setSampleRate(SOAPY_SDR_TX, 0, 1.1e6);  // the nearest is 32 MHz / 29
    EXPECT_DOUBLE_EQ(dev->getSampleRate(SOAPY_SDR_TX, 0), 32e6 / 29);
    dev->setSampleRate(SOAPY_SDR_TX, 0, 1e6);

    const size_t total = 100000;
    std::vector<int16_t> samples(2 * total);
    for (size_t i = 0; i < samples.size(); ++i) samples[i] = int16_t(int(i * 7919 % 65536) - 32768);
    SoapySDR::Stream* stream = dev->setupStream(SOAPY_SDR_TX, "CS16");
    ASSERT_EQ(dev->activateStream(stream), 0);
    const auto start = std::chrono::steady_clock::now();
    const auto seconds = [&] { return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count(); };
    for (size_t done = 0; done < total;) {
        const void* buffs[] = {samples.data() + 2 * done};
        const size_t n = std::min<size_t>(1000, total - done);
        int flags = done + n == total ? SOAPY_SDR_END_BURST : 0;
        const int ret = dev->writeStream(stream, buffs, n, flags, 0, 1000000);
        ASSERT_GT(ret, 0) << SoapySDR::errToStr(ret);
        done += size_t(ret);
    }
    EXPECT_GE(seconds(), 0.9 * (total - 32768) / 1e6);  // the writes waited for room in the buffer
    // The injected underflow once, then the end of the burst once it has played out.
    size_t mask = 0;
    int flags = 0, underflows = 0, ret = 0;
    long long timeNs = 0;
    while ((ret = dev->readStreamStatus(stream, mask, flags, timeNs, 1000000)) == SOAPY_SDR_UNDERFLOW) ++underflows;
    const double elapsed = seconds();
    EXPECT_EQ(underflows, 1);
    EXPECT_EQ(ret, 0);
    EXPECT_EQ(flags, SOAPY_SDR_END_BURST);
    EXPECT_GE(elapsed, 0.9 * total / 1e6);
    EXPECT_LE(elapsed, 4.0 * total / 1e6);
    EXPECT_EQ(dev->readStreamStatus(stream, mask, flags, timeNs, 1000), SOAPY_SDR_TIMEOUT);
    EXPECT_EQ(logged, "");  // the injected underflow is not logged without log_underflow=1

    // A burst left open runs the buffer dry: a real underflow, reported and logged.
    const void* buffs[] = {samples.data()};
    EXPECT_EQ(dev->writeStream(stream, buffs, 100, flags), 100);
    EXPECT_EQ(dev->readStreamStatus(stream, mask, flags, timeNs, 1000000), SOAPY_SDR_UNDERFLOW);
    EXPECT_EQ(logged, "U");
    SoapySDR::registerLogHandler(nullptr);
    EXPECT_EQ(dev->readSensor("bursts_ended"), "1");

    dev->deactivateStream(stream);
    dev->closeStream(stream);
    SoapySDR::Device::unmake(dev);
    std::string expected(4 * total + 400, '\0');
    std::memcpy(expected.data(), samples.data(), 4 * total);
    std::memcpy(expected.data() + 4 * total, samples.data(), 400);
    EXPECT_TRUE(slurp(record) == expected);
    const std::string status = slurp(record + ".status");
    for (const char* line : {"samples=100100\n", "underflows=2\n", "format=CS16\n", "rate=1000000\n", "closed=1\n"})
        EXPECT_NE(status.find(line), std::string::npos) << line << " not in:\n" << status;
}

}  // namespace
