#include <gtest/gtest.h>

#include <atomic>

#include "platform/sockets.h"
#include "timestampservice/socketLayer.h"
#include "unit/support/raisedError.h"
#include "unit/support/timing.h"

using ztsdlib::platform::SocketLayer;

// A socket layer that cannot start is the caller's error (-52008 and the
// system's code), tried again by the next call; once started it is never
// started again, however many threads ask at once.
TEST(SocketLayer, AFailedStartIsReportedAndRetriedAndASuccessfulOneHappensOnce) {
    std::atomic<int> calls{0};
    std::atomic<int> result{10091};  // WSASYSNOTREADY
    SocketLayer layer([&] {
        ++calls;
        return result.load();
    });
    const ztsdtest::Raised failed = ztsdtest::captureRaise([&] { ztsdlib::requireSocketLayer(layer); });
    ztsdtest::expectSite(failed, -52008, "ztapalerr_osFault", "source\\ztsdlib\\socketLayer");
    ztsdtest::expectReport(failed, -52008, R"({"message":"Failed to initialise Winsock.","systemError":"10091"})");
    EXPECT_EQ(calls, 1);

    result = 0;
    std::atomic<int> started{0};
    ztsdtest::FanOut(8, [&](int) {
        int error = -1;
        if (layer.ensureStarted(error) && error == 0) ++started;
    }).join();
    EXPECT_EQ(started, 8);
    EXPECT_EQ(calls, 2);
    EXPECT_NO_THROW(ztsdlib::requireSocketLayer());  // the process' own layer starts
}
