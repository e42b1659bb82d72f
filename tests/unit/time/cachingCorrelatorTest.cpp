#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "time/cachingCorrelator.h"
#include "time/nopCorrelator.h"
#include "time/timestamp.h"
#include "unit/support/raisedError.h"
#include "unit/support/testTimescales.h"

using ztsdlib::CachingCorrelator;
using ztsdlib::NopCorrelator;
using ztsdtest::captureRaise;
using ztsdtest::ts;

namespace {

// A correlator whose answers are a function of the question, and that
// records every question it was asked; it can be told to fail.
class RecordingCorrelator : public ztsdlib::TimestampCorrelatorInterface {
public:
    ztsdlib_Timestamp correlate(std::string_view source, const ztsdlib_Timestamp& t) override {
        asked.push_back(std::string(source) + "@" + std::to_string(t.seconds));
        if (failing) {
            zterr::raise(ZTERR_SITE("test\\recordingCorrelator", zterr::name::ztapalerr_invalidStateTransition),
                         zterr::code::ztapalerr_invalidStateTransition, "ztsyncdomain_debug",
                         {{"message", "not started"}});
        }
        ztsdlib_Timestamp answer = t;
        answer.seconds += source.size() * 1000 + asked.size();  // differs with every call
        return answer;
    }
    const std::string& getUri() const override { return uri; }
    const std::string& getTimescale1Uri() const override { return uri1; }
    const std::string& getTimescale2Uri() const override { return uri2; }
    void start() override { ++starts; }
    void stop() override { ++stops; }
    bool isRunning() const override { return starts > stops; }
    std::string toJson() const override { return "{ \"type\" : \"recording\" }"; }

    std::vector<std::string> asked;
    bool failing = false;
    int starts = 0, stops = 0;
    std::string uri = "/wrapped", uri1 = "/t1", uri2 = "/t2";
};

}  // namespace

TEST(CachingCorrelator, AnswersARepeatedQuestionFromItsCacheAndDistinguishesEveryField) {
    RecordingCorrelator wrapped;
    CachingCorrelator caching("/caching", wrapped);

    const ztsdlib_Timestamp first = caching.correlate("/t1", ts(10, 5));
    EXPECT_TRUE(ztsdlib::sameTimestamp(caching.correlate("/t1", ts(10, 5)), first));
    EXPECT_EQ(wrapped.asked.size(), 1u);

    // Each field of the question, and the source URI, makes a new question.
    const std::vector<std::pair<std::string, ztsdlib_Timestamp>> different = {
        {"/t2", ts(10, 5)},       {"/t1", ts(11, 5)},          {"/t1", ts(10, 6)},
        {"/t1", ts(10, 5, false, 1)},    {"/t1", ts(10, 5, true)}, {"/t1 ", ts(10, 5)},
    };
    for (const auto& [source, t] : different) {
        const ztsdlib_Timestamp answer = caching.correlate(source, t);
        EXPECT_FALSE(ztsdlib::sameTimestamp(answer, first)) << source;
    }
    EXPECT_EQ(wrapped.asked.size(), 1u + different.size());
    EXPECT_EQ(caching.cachedAnswers(), 1u + different.size());
    // ... and each of them is now answered from the cache too, unchanged.
    for (const auto& [source, t] : different) caching.correlate(source, t);
    EXPECT_EQ(wrapped.asked.size(), 1u + different.size());
}

TEST(CachingCorrelator, DoesNotCacheFailuresAndPassesTheRestToTheWrappedCorrelator) {
    RecordingCorrelator wrapped;
    CachingCorrelator caching("/caching", wrapped);
    wrapped.failing = true;
    auto failure = captureRaise([&] { caching.correlate("/t1", ts(1, 2)); });
    ztsdtest::expectReport(failure, -52017, R"({"message":"not started"})");
    wrapped.failing = false;
    caching.correlate("/t1", ts(1, 2));  // asked again, now answered
    EXPECT_EQ(wrapped.asked.size(), 2u);
    EXPECT_EQ(caching.cachedAnswers(), 1u);

    EXPECT_EQ(caching.getUri(), "/caching");
    EXPECT_EQ(&caching.getTimescale1Uri(), &wrapped.uri1);
    EXPECT_EQ(&caching.getTimescale2Uri(), &wrapped.uri2);
    EXPECT_EQ(caching.toJson(), "{ \"type\" : \"recording\" }");
    caching.start();
    EXPECT_TRUE(caching.isRunning());
    caching.stop();
    EXPECT_FALSE(caching.isRunning());
    EXPECT_EQ(wrapped.starts, 1);
    EXPECT_EQ(wrapped.stops, 1);
    // Starting and stopping leave the cache as it was.
    caching.correlate("/t1", ts(1, 2));
    EXPECT_EQ(wrapped.asked.size(), 2u);
}

TEST(NopCorrelator, HandsTheTimestampBackUnchangedForEitherOfItsTimescales) {
    ztsdtest::SteppingTimescale first("/t1", 1, 1), second("/t2", 1, 1);
    NopCorrelator nop("/nop", first, second);
    EXPECT_TRUE(nop.isRunning());  // before any start
    const ztsdlib_Timestamp t = ts(3, 7, true, 1);
    EXPECT_TRUE(ztsdlib::sameTimestamp(nop.correlate("/t1", t), t));
    EXPECT_TRUE(ztsdlib::sameTimestamp(nop.correlate("/t2", t), t));

    EXPECT_EQ(captureRaise([&] { nop.correlate("/t3", t); }).code, -52005);  // its message: LinearCorrelator's test

    nop.start();
    nop.start();
    nop.stop();
    EXPECT_TRUE(nop.isRunning());
    EXPECT_EQ(first.reads.load(), 0u);  // a nop correlator never reads its timescales

    EXPECT_EQ(nop.toJson(),
              "{ \"type\" : \"nop\", \"uri\" : \"/nop\", \"timescaleUri1\" : \"/t1\", \"timescaleUri2\" : \"/t2\", "
              "\"isRunning\" : true }");
}
