// Failures and the sentences that are made of them.

#include "failure.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <set>

namespace {

using Kind = TavroFailureKind;

} // namespace

TEST(Failure, is_none_until_something_failed) {
    EXPECT_FALSE(TavroFailure());
    EXPECT_EQ("", TavroDescribe({}));
    const TavroFailure failure = TavroFail(Kind::Read, EACCES, "a", "b");
    EXPECT_TRUE(failure);
    EXPECT_EQ(Kind::Read, failure.Kind);
    EXPECT_EQ(std::errc::permission_denied, failure.Error);
    EXPECT_EQ("a", failure.Path);
    EXPECT_EQ("b", failure.Other);
}

TEST(Failure, says_the_paths_and_the_reason) {
    EXPECT_EQ("Cannot move '/a b' to 'c%p%e': Permission denied",
              TavroDescribe(TavroFail(Kind::MoveTo, EACCES, "/a b", "c%p%e")));
    EXPECT_EQ("'/a' is no longer in the trash",
              TavroDescribe(TavroFail(Kind::ItemMissing, 0, "/a")));
    EXPECT_EQ("Several entries named 'x' are in the trash, from '/a' and '/b'",
              TavroDescribe({Kind::SeveralNamed, {}, "x", "'/a' and '/b'"}));
}

TEST(Failure, of_every_kind_has_a_sentence_of_its_own) {
    // Some kinds mean the same to a reader, and differ in what the caller does about them.
    std::multiset<std::string> sentences;
    for (int kind = 1; kind < 200; ++kind) {
        const std::string sentence = TavroDescribe(TavroFail(Kind(kind), EIO, "<path>", "<other>"));
        EXPECT_EQ(std::string::npos, sentence.find('%')) << sentence;
        EXPECT_EQ(std::string::npos, sentence.find('\n')) << sentence;
        if (!sentence.empty()) {
            sentences.insert(sentence);
            EXPECT_EQ(kind, int(sentences.size())) << "a kind before this one has no sentence";
        }
    }
    EXPECT_GE(sentences.size(), std::size_t(Kind::HistoryUnrecordable));
    for (const std::string& sentence : sentences) {
        EXPECT_LE(sentences.count(sentence), 4U) << sentence;
    }
}
