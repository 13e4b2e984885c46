// What an operation tells about itself, how often, and how it is cancelled.

#include "progress.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

namespace {

class ProgressTeller : public testing::Test {
protected:
    ProgressTeller() {
        m_callbacks.OnProgress = [this](const TavroProgress& progress) {
            m_told.push_back(progress);
        };
    }

    /// What is told when everything is told now.
    TavroProgress tell(TavroProgressTeller& teller) {
        teller.Tell();
        return m_told.back();
    }

    TavroCallbacks m_callbacks;
    std::vector<TavroProgress> m_told;
};

} // namespace

TEST_F(ProgressTeller, counts_items_and_bytes_up_to_what_was_measured) {
    TavroProgressTeller teller(m_callbacks);
    teller.Expect(2, 100);
    teller.Expect(1, 50);
    teller.AddItems();
    teller.AddBytes(60);
    TavroProgress told = tell(teller);
    EXPECT_EQ(3U, told.ItemCount);
    EXPECT_EQ(150U, told.ByteCount);
    EXPECT_EQ(1U, told.ItemsDone);
    EXPECT_EQ(60U, told.BytesDone);
    teller.AddItems(7);
    teller.AddBytes(1000);
    told = tell(teller);
    EXPECT_EQ(3U, told.ItemsDone);
    EXPECT_EQ(150U, told.BytesDone);
}

TEST_F(ProgressTeller, counts_without_end_where_nothing_was_measured) {
    TavroProgressTeller teller(m_callbacks);
    teller.AddItems(7);
    teller.AddBytes(1000);
    EXPECT_EQ(7U, tell(teller).ItemsDone);
    EXPECT_EQ(1000U, tell(teller).BytesDone);
}

TEST_F(ProgressTeller, never_goes_back_to_what_is_dealt_with) {
    TavroProgressTeller teller(m_callbacks);
    teller.Expect(10, 100);
    teller.Reach(4, 40);
    EXPECT_EQ(4U, tell(teller).ItemsDone);
    teller.AddItems(2);
    teller.Reach(3, 50);
    EXPECT_EQ(6U, tell(teller).ItemsDone);
    EXPECT_EQ(50U, tell(teller).BytesDone);
}

TEST_F(ProgressTeller, tells_at_most_20_times_a_second) {
    const auto begin = std::chrono::steady_clock::now();
    TavroProgressTeller teller(m_callbacks);
    int asked = 0;
    while (m_told.size() < 3) {
        teller.Begin([&] { return "path " + std::to_string(++asked); });
        teller.AddBytes(1);
    }
    const auto passed = std::chrono::steady_clock::now() - begin;
    EXPECT_GE(passed, std::chrono::milliseconds(3 * 50));
    EXPECT_LE(asked, 3) << "a path is made only when it is told";
}

TEST_F(ProgressTeller, does_nothing_when_nobody_listens) {
    const TavroCallbacks none;
    TavroProgressTeller teller(none);
    EXPECT_FALSE(teller.IsHeard());
    teller.Begin([]() -> std::string {
        ADD_FAILURE() << "nobody wants to know";
        return "";
    });
    teller.AddBytes(1);
    teller.Tell();
    EXPECT_FALSE(teller.ShouldCancel());
    EXPECT_TRUE(TavroProgressTeller(m_callbacks).IsHeard());
}

TEST_F(ProgressTeller, a_cancel_that_was_said_once_stays_said) {
    int asked = 0;
    m_callbacks.ShouldCancel = [&] { return ++asked == 2; };
    TavroProgressTeller teller(m_callbacks);
    EXPECT_FALSE(teller.ShouldCancel());
    EXPECT_TRUE(teller.ShouldCancel());
    EXPECT_TRUE(teller.ShouldCancel());
    EXPECT_EQ(2, asked);
}
