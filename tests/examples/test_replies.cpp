// SPDX-License-Identifier: MIT
#include "replies.h"

#include <gtest/gtest.h>

#include <thread>

namespace
{

constexpr std::chrono::hours never{1};

model_Protocoldata record(int command, int number)
{
    model_Protocoldata made;
    made.CMD = static_cast<quint8>(command);
    made.DAT2 = static_cast<quint8>(number);
    return made;
}

// As the links do it.
void queue(const model_Protocoldata& reply)
{
    const std::lock_guard lock(biz_CMDSWork::receiveHexCmdlock);
    biz_CMDSWork::receivequeueHexCmd.push_back(reply);
    const std::lock_guard flag(biz_CMDSWork::HexCmdlock);
    biz_CMDSWork::bRetFlag = true;
}

TEST(TakeReplies, TakesAllInOrderAndLowersTheFlag)
{
    EXPECT_FALSE(takeReplies().wasRaised);
    queue(record(1, 1));
    queue(record(1, 2));
    const Replies come = takeReplies();
    EXPECT_TRUE(come.wasRaised);
    ASSERT_EQ(come.records.size(), 2U);
    EXPECT_EQ(come.records.front().DAT2, 1);
    EXPECT_TRUE(biz_CMDSWork::receivequeueHexCmd.empty());
    EXPECT_FALSE(biz_CMDSWork::bRetFlag);
}

TEST(WaitForReply, TakesTheReplyThatComesMeanwhile)
{
    std::thread link([] { queue(record(1, 7)); });
    const auto reply = waitForReply(record(1, 7), never);
    link.join();
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->DAT2, 7);
}

TEST(WaitForReply, DropsALateReplyToAnEarlierCommand)
{
    queue(record(1, 6));
    EXPECT_FALSE(waitForReply(record(1, 7), std::chrono::milliseconds(50)));
    EXPECT_TRUE(biz_CMDSWork::receivequeueHexCmd.empty());
    queue(record(1, 6));
    queue(record(1, 7));
    EXPECT_TRUE(waitForReply(record(1, 7), never));
}

TEST(WaitForReply, EndsWhenTheFlagComesUpWithoutAReply)
{
    biz_CMDSWork::bRetFlag = true;
    EXPECT_FALSE(waitForReply(record(1, 7), never));
    EXPECT_FALSE(biz_CMDSWork::bRetFlag);
}

} // namespace
