// The image loader when the C library has no memory for it: the loader source's copy in
// Prepare, ReadAck's reply buffer and the firmware's chunk buffer. malloc fails for one request
// size at a time (MallocFaults.h); nothing in the plug-in knows.

#include <gtest/gtest.h>

#include <algorithm>

#include "ImageLoaderTestHost.h"
#include "MallocFaults.h"

namespace imageloadertest {
namespace {

// A loader source size that nothing else in these tests asks malloc for.
constexpr std::size_t kLoaderSourceBytes = 4093;

class ImageLoaderAllocationTest : public ImageLoaderTestHost {
protected:
    bool Called(const std::string& call) const {
        const std::vector<std::string> calls = m_files.Calls();
        return std::find(calls.begin(), calls.end(), call) != calls.end();
    }
};

TEST_F(ImageLoaderAllocationTest, NoMemoryForTheLoaderSourceFailsPrepareSilentlyAndLeavesItOpen) {
    m_loaderSource = PseudoRandomBytes(kLoaderSourceBytes, 3);
    m_files.AddFile(kLoaderPath, m_loaderSource);
    CImageLoader& loader = MakeLoader();
    bool prepared = true;
    {
        CMallocFault fault(kLoaderSourceBytes);
        prepared = loader.Prepare();
        EXPECT_EQ(fault.Failed(), 1u);
    }
    EXPECT_FALSE(prepared);
    EXPECT_TRUE(m_log.Entries().empty()) << "a failed allocation has no log line";
    EXPECT_TRUE(Called(std::string("FOpen ") + kLoaderPath + " rb"));
    EXPECT_FALSE(Called(std::string("FClose ") + kLoaderPath)) << "the file stays open";
    EXPECT_EQ(m_files.OpenStreams(), 1u);
    // The rest of Prepare runs: the firmware is sized and the port opened.
    EXPECT_TRUE(Called(std::string("FileSize ") + kFirmwarePath));
    EXPECT_EQ(m_port.CreateCalls().size(), 1u);
}

TEST_F(ImageLoaderAllocationTest, NoMemoryForTheReplyBufferFailsReadAckBeforeAnyRead) {
    CImageLoader& loader = PreparedLoader();
    CVirtualClock::Clear();
    const unsigned char expected[5] = {1, 2, 3, 4, 5};
    bool matched = true;
    {
        CMallocFault fault(sizeof expected);
        matched = loader.ReadAck(sizeof expected, expected, 10);
        EXPECT_EQ(fault.Failed(), 1u);
    }
    EXPECT_FALSE(matched);
    EXPECT_EQ(m_log.Entries(),
              std::vector<TLogEntry>{ErrorEntry("ReadAck", "could not allocate buffer memory")});
    EXPECT_EQ(m_port.Reads(), 0u);
    EXPECT_TRUE(CVirtualClock::Sleeps().empty()) << "no try is made, so no try is waited for";
}

TEST_F(ImageLoaderAllocationTest, NoMemoryForTheChunkBufferClosesTheFirmwareAndEndsTheRun) {
    SetFirmware(PseudoRandomBytes(1000, 2));
    CImageLoader& loader = PreparedLoader();
    m_port.Expect(WriteRangeCommand(1000), Bytes({0x04}));
    m_port.Expect(Bytes({0x01}), Bytes({0x01}));
    {
        CMallocFault fault(kChunk);
        loader.Write();
        EXPECT_EQ(fault.Failed(), 1u);
    }
    EXPECT_EQ(loader.Step(), eStepTerminate);
    EXPECT_EQ(loader.Error(), eLoaderErrorWrite);
    EXPECT_TRUE(loader.StepPending());
    EXPECT_TRUE(m_log.Entries().empty());
    EXPECT_TRUE(m_callback.Calls().empty()) << "no progress: the write never started";
    EXPECT_TRUE(Called(std::string("FOpen ") + kFirmwarePath + " rb"));
    EXPECT_TRUE(Called(std::string("FClose ") + kFirmwarePath));
    EXPECT_EQ(m_files.OpenStreams(), 0u);
    EXPECT_EQ(m_port.StepsLeft(), 0u);
}

}  // namespace
}  // namespace imageloadertest
