#include "orvex/input_buffer.h"

#include <gtest/gtest.h>
#include <malloc.h>

#include <cstring>
#include <memory>
#include <string>
#include <utility>

using Orvex::InputBuffer;
using namespace std::string_literals;

namespace {

constexpr int kFrame = 10;  ///< bytes of a frame that `sFrame` makes

/// A frame whose image has 9 bytes of `ch`.
std::string sFrame(char ch) {
    return "\x05" + std::string(9, ch);
}

/// Appends to what is held, as a read does that finds room for `nCapacity` bytes.
void fill(InputBuffer& rBuffer, const std::string& sBytes, int nCapacity = 5090) {
    ASSERT_GE(rBuffer.nMakeRoom(nCapacity), static_cast<int>(sBytes.size()));
    std::memcpy(rBuffer.pTail(), sBytes.data(), sBytes.size());
    rBuffer.added(static_cast<int>(sBytes.size()));
}

std::string sTaken(InputBuffer& rBuffer) {
    return std::string(rBuffer.dequeueView().value_or("nothing"));
}

/// Where the bytes held begin; valid only if nothing was removed since they were moved.
unsigned char* pBegin(InputBuffer& rBuffer) {
    return rBuffer.pTail() - rBuffer.size();
}

/// The address of the shared block, which is taken and given back.
unsigned char* pSpare() {
    InputBuffer buffer;
    (void)buffer.nMakeRoom(InputBuffer::kBlockSize);
    return buffer.pTail();
}

}  // namespace

TEST(InputBuffer, HoldsNothingAndNoMemoryAtFirst) {
    InputBuffer buffer;
    EXPECT_EQ(buffer.size(), 0);
    EXPECT_EQ(buffer.pTail(), nullptr);
    EXPECT_FALSE(buffer.bFrameWaits());
    EXPECT_FALSE(buffer.peekView());
    EXPECT_FALSE(buffer.dequeueView());
    buffer.putAside();
    EXPECT_EQ(buffer.pTail(), nullptr);
}

TEST(InputBuffer, RoomIsWhatIsMissingToTheCapacity) {
    InputBuffer buffer;
    EXPECT_EQ(buffer.nMakeRoom(100), 100);
    fill(buffer, sFrame('a'), 100);
    EXPECT_EQ(buffer.nMakeRoom(100), 90);
    EXPECT_EQ(buffer.nMakeRoom(500), 490);
    EXPECT_EQ(buffer.nMakeRoom(kFrame), 0);
    EXPECT_EQ(buffer.nMakeRoom(kFrame - 1), 0) << "more is held already";
    EXPECT_EQ(sTaken(buffer), std::string(9, 'a')) << "and nothing of it is lost";
}

TEST(InputBuffer, RoomOfRemovedFramesIsReused) {
    InputBuffer buffer;
    fill(buffer, sFrame('a') + sFrame('b'), 2 * kFrame);
    EXPECT_EQ(buffer.nMakeRoom(2 * kFrame), 0);
    buffer.pop();
    fill(buffer, sFrame('c'), 2 * kFrame);
    EXPECT_EQ(sTaken(buffer), std::string(9, 'b'));
    EXPECT_EQ(sTaken(buffer), std::string(9, 'c'));
}

TEST(InputBuffer, GrowsWithoutLosingWhatItHolds) {
    InputBuffer buffer;
    fill(buffer, sFrame('a') + sFrame('b'), 2 * kFrame);
    buffer.pop();
    fill(buffer, sFrame('c'), InputBuffer::kBlockSize);
    EXPECT_EQ(sTaken(buffer), std::string(9, 'b'));
    EXPECT_EQ(sTaken(buffer), std::string(9, 'c'));
}

TEST(InputBuffer, PeekingRemovesNothing) {
    InputBuffer buffer;
    fill(buffer, sFrame('a') + sFrame('b'));
    EXPECT_EQ(buffer.peekView(), std::string(9, 'a'));
    EXPECT_EQ(buffer.peekView(), std::string(9, 'a'));
    EXPECT_EQ(buffer.size(), 2 * kFrame);
    buffer.pop();
    EXPECT_EQ(buffer.size(), kFrame);
    EXPECT_EQ(buffer.peekView(), std::string(9, 'b'));
    EXPECT_EQ(sTaken(buffer), std::string(9, 'b'));
    EXPECT_EQ(buffer.size(), 0);
    EXPECT_FALSE(buffer.peekView());
}

TEST(InputBuffer, AViewLiesBetweenItsLengthByteAndTheNextFrame) {
    InputBuffer buffer;
    fill(buffer, sFrame('a') + sFrame('b'));
    const auto first = buffer.dequeueView();
    const auto second = buffer.dequeueView();
    ASSERT_TRUE(first && second);
    EXPECT_EQ(first->data()[-1], 5);
    EXPECT_EQ(first->data() + first->size(), second->data() - 1);
    EXPECT_EQ(*first, std::string(9, 'a')) << "still valid after another was taken";
}

TEST(InputBuffer, AnIncompleteFrameWaitsForItsLastByte) {
    InputBuffer buffer;
    const std::string sWhole = sFrame('a');
    for (int i = 0; i < kFrame - 1; ++i) {
        fill(buffer, sWhole.substr(static_cast<std::size_t>(i), 1));
        EXPECT_FALSE(buffer.bFrameWaits());
        EXPECT_FALSE(buffer.peekView());
        EXPECT_FALSE(buffer.dequeueView());
        EXPECT_EQ(buffer.size(), i + 1);
    }
    fill(buffer, "a");
    EXPECT_TRUE(buffer.bFrameWaits());
    EXPECT_EQ(sTaken(buffer), std::string(9, 'a'));
    EXPECT_FALSE(buffer.bFrameWaits());
}

TEST(InputBuffer, TheLengthByteIsUnsigned) {
    InputBuffer buffer;
    fill(buffer, "\xFF" + std::string(509, 'x'));
    EXPECT_TRUE(buffer.bFrameWaits());
    EXPECT_EQ(sTaken(buffer), std::string(509, 'x'));
    fill(buffer, "\x80" + std::string(254, 'x'));
    EXPECT_FALSE(buffer.bFrameWaits());
}

TEST(InputBuffer, AZeroLengthByteEmptiesIt) {
    for (const bool bOnlyLook : {false, true}) {
        InputBuffer buffer;
        fill(buffer, sFrame('a') + "\0"s + sFrame('b'));
        EXPECT_EQ(sTaken(buffer), std::string(9, 'a'));
        EXPECT_TRUE(buffer.bFrameWaits()) << "or it would never be discarded";
        EXPECT_FALSE(bOnlyLook ? buffer.peekView() : buffer.dequeueView());
        EXPECT_EQ(buffer.size(), 0);
        EXPECT_FALSE(buffer.bFrameWaits());
        fill(buffer, sFrame('c'));
        EXPECT_EQ(sTaken(buffer), std::string(9, 'c'));
    }
}

TEST(InputBuffer, KeepsExactlyWhatIsLeftWhenPutAside) {
    InputBuffer buffer;
    fill(buffer, sFrame('a') + sFrame('b') + "\x05zz", InputBuffer::kBlockSize);
    unsigned char* const pBlock = pBegin(buffer);
    buffer.pop();
    buffer.putAside();
    EXPECT_EQ(buffer.size(), kFrame + 3);
    ASSERT_EQ(pSpare(), pBlock) << "the next one reads into it";
    EXPECT_LT(malloc_usable_size(pBegin(buffer)), 64U);
    EXPECT_EQ(sTaken(buffer), std::string(9, 'b'));
    fill(buffer, "zzzzzzz", InputBuffer::kBlockSize);
    EXPECT_EQ(sTaken(buffer), std::string(9, 'z'));
}

TEST(InputBuffer, WhatFitsExactlyStaysWhereItIs) {
    InputBuffer buffer;
    fill(buffer, sFrame('a'), kFrame);
    const unsigned char* const pHeld = pBegin(buffer);
    buffer.putAside();
    EXPECT_EQ(pBegin(buffer), pHeld);
    EXPECT_EQ(sTaken(buffer), std::string(9, 'a'));
}

TEST(InputBuffer, HasNoMemoryWhenItIsPutAsideEmpty) {
    InputBuffer buffer;
    fill(buffer, sFrame('a'));
    buffer.pop();
    buffer.putAside();
    EXPECT_EQ(buffer.pTail(), nullptr);
    EXPECT_EQ(buffer.nMakeRoom(100), 100) << "it may be used again";
    fill(buffer, sFrame('b'), 100);
    EXPECT_EQ(sTaken(buffer), std::string(9, 'b'));
}

TEST(InputBuffer, TheBlockIsReused) {
    unsigned char* pBlock = nullptr;
    {
        InputBuffer first;
        (void)first.nMakeRoom(InputBuffer::kBlockSize);
        pBlock = first.pTail();
        first.putAside();
        // A block that was freed would be handed out here.
        const std::unique_ptr<unsigned char[]> pOther(new unsigned char[InputBuffer::kBlockSize]);
        EXPECT_NE(pOther.get(), pBlock);
        (void)first.nMakeRoom(InputBuffer::kBlockSize);
        EXPECT_EQ(first.pTail(), pBlock);
    }
    const std::unique_ptr<unsigned char[]> pOther(new unsigned char[InputBuffer::kBlockSize]);
    EXPECT_NE(pOther.get(), pBlock);
    EXPECT_EQ(pSpare(), pBlock) << "also that of a destroyed buffer";
}

TEST(InputBuffer, TwoAtOnceDoNotShareTheBlock) {
    InputBuffer first;
    InputBuffer second;
    fill(first, sFrame('a'), InputBuffer::kBlockSize);
    fill(second, sFrame('b'), InputBuffer::kBlockSize);
    EXPECT_EQ(sTaken(first), std::string(9, 'a'));
    EXPECT_EQ(sTaken(second), std::string(9, 'b'));
}

TEST(InputBuffer, ACopyHasTheBytesHeldAndNoMore) {
    InputBuffer buffer;
    fill(buffer, sFrame('a') + sFrame('b') + "\x05", InputBuffer::kBlockSize);
    buffer.pop();
    InputBuffer copy(buffer);
    EXPECT_EQ(copy.size(), kFrame + 1);
    EXPECT_LT(malloc_usable_size(pBegin(copy)), 64U);
    EXPECT_EQ(sTaken(copy), std::string(9, 'b'));
    EXPECT_EQ(buffer.size(), kFrame + 1);
    EXPECT_EQ(sTaken(buffer), std::string(9, 'b')) << "each has its own";
}

TEST(InputBuffer, ACopyOfAnEmptyOneHasNoMemory) {
    InputBuffer buffer;
    (void)buffer.nMakeRoom(100);
    InputBuffer copy(buffer);
    EXPECT_EQ(copy.pTail(), nullptr);
}

TEST(InputBuffer, AMoveTransfersEverything) {
    InputBuffer buffer;
    fill(buffer, sFrame('a') + sFrame('b'));
    buffer.pop();
    const unsigned char* const pHeld = buffer.pTail();
    InputBuffer moved(std::move(buffer));
    EXPECT_EQ(moved.pTail(), pHeld);
    EXPECT_EQ(buffer.size(), 0);         // NOLINT(bugprone-use-after-move): it is empty
    EXPECT_EQ(buffer.pTail(), nullptr);  // and good for use again
    fill(buffer, sFrame('c'));
    EXPECT_EQ(sTaken(moved), std::string(9, 'b'));
    EXPECT_EQ(sTaken(buffer), std::string(9, 'c'));
}

TEST(InputBuffer, AnAssignmentReplacesWhatWasHeld) {
    InputBuffer one;
    InputBuffer other;
    fill(one, sFrame('a'));
    fill(other, sFrame('b') + sFrame('c'));
    one = other;
    EXPECT_EQ(sTaken(one), std::string(9, 'b'));
    other = std::move(one);
    EXPECT_EQ(sTaken(other), std::string(9, 'c'));
    EXPECT_EQ(sTaken(other), "nothing");
    InputBuffer& rSelf = other;
    fill(other, sFrame('d'));
    other = rSelf;
    EXPECT_EQ(sTaken(other), std::string(9, 'd'));
}

TEST(InputBuffer, ASwapKeepsViewsValid) {
    InputBuffer one;
    InputBuffer other;
    fill(one, sFrame('a') + sFrame('b'));
    const auto view = one.dequeueView();
    one.swap(other);
    EXPECT_EQ(view, std::string(9, 'a'));
    EXPECT_EQ(one.size(), 0);
    EXPECT_EQ(sTaken(other), std::string(9, 'b'));
}
