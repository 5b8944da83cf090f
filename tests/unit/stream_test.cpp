// Frames in and bytes out, per descriptor, over real sockets.
#include "core/stream.h"

#include "tests/unit/agent_test.h"
#include "tests/unit/faults.h"
#include "tests/unit/system_faults.h"

namespace {

std::vector<int> receives, lengths, sends, failures;
void NoteReceive(int result) { receives.push_back(result); }
void NoteLength(int rest) { lengths.push_back(rest); }
void NoteSend(int result) { sends.push_back(result); }
void NoteFailure(int error) { failures.push_back(error); }

constexpr FrameFormat kCounting = {.LengthCounts = 4,  // the length word counts itself
                                   .SmallestLength = 5,
                                   .LargestLength = 8188,
                                   .TraceReceive = NoteReceive,
                                   .TraceLength = NoteLength};
constexpr FrameFormat kPlain = {.LengthCounts = 0,
                                .SmallestLength = 0,
                                .LargestLength = 8188,
                                .TraceReceive = nullptr,
                                .TraceLength = nullptr};
constexpr OutputTrace kTraced = {.Sent = NoteSend, .Failed = NoteFailure};

std::string Frame(std::uint32_t length, const std::string& body) { return BytesOf(length) + body; }

class Streams : public AgentTest {
 protected:
  Streams() {
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair_), 0);
    receives.clear();
    lengths.clear();
    sends.clear();
    failures.clear();
  }
  ~Streams() override {
    ForgetDescriptor(pair_[0]);
    close(pair_[0]);
    if (pair_[1] >= 0) close(pair_[1]);
  }

  int Ours() const { return pair_[0]; }
  int Far() const { return pair_[1]; }
  void CloseFar() {
    close(pair_[1]);
    pair_[1] = -1;
  }
  void Come(const std::string& bytes) const { SendAll(Far(), bytes); }
  FrameRead Read(const FrameFormat& format = kCounting) { return ReadFrame(Ours(), area_, format); }
  FrameRead ComeAndRead(const std::string& bytes, const FrameFormat& format = kCounting) {
    Come(bytes);
    return Read(format);
  }
  void ExpectFrame(const std::string& frame, const FrameFormat& format) {
    EXPECT_EQ(Read(format), FrameRead::Whole);
    EXPECT_EQ(Area(frame.size()), frame);
  }
  // The frame comes byte by byte.
  void ComeInBytes(const std::string& frame, const FrameFormat& format) {
    for (std::size_t i = 0; i + 1 < frame.size(); ++i) {
      Come(frame.substr(i, 1));
      EXPECT_EQ(Read(format), FrameRead::Later) << i;
      EXPECT_FALSE(FrameWaits(Ours()));
    }
    Come(frame.substr(frame.size() - 1));
    ExpectFrame(frame, format);
  }
  std::string Area(std::size_t size) const {
    return std::string(reinterpret_cast<const char*>(area_), size);
  }
  int Send(const std::string& bytes, const OutputTrace* trace = nullptr) const {
    return SendBytes(kHere, 7, Ours(), bytes.data(), bytes.size(), trace);
  }
  int Flush() const { return FlushBytes(kHere, 8, Ours()); }
  // Sends until something is kept; all that was given to SendBytes.
  std::string FillUp() const {
    std::string all;
    while (UnsentBytes(Ours()) == 0) {
      const std::string part(8188, static_cast<char>('a' + all.size() % 23));
      EXPECT_EQ(Send(part), 0);
      all += part;
    }
    return all;
  }
  // What the far end can read without waiting.
  std::string Take() const { return ReceiveAll(Far()); }

  // All that is kept goes out: what the far end gets.
  std::string TakeAll() const {
    std::string came = Take();
    while (UnsentBytes(Ours()) > 0) {
      EXPECT_EQ(Flush(), 0);
      came += Take();
    }
    return came;
  }

 private:
  int pair_[2] = {-1, -1};
  unsigned char area_[8192];
};

// What is traced is noted here, so nothing is written.
class FramesIn : public Streams {
 protected:
  void SetUp() override {
    Streams::SetUp();
    g_DbcI.LogLevel = kLogTrace;
  }
};

TEST_F(FramesIn, AWholeFrameShowsAsReadInTwoSteps) {
  Come(Frame(10, "abcdef"));
  ExpectFrame(Frame(10, "abcdef"), kCounting);
  EXPECT_EQ(receives, (std::vector<int>{4, 6}));
  EXPECT_EQ(lengths, std::vector<int>{6});
}

TEST_F(FramesIn, BelowTheTraceLevelNothingShows) {
  g_DbcI.LogLevel = kLogTrace - 1;
  EXPECT_EQ(ComeAndRead(Frame(10, "abcdef")), FrameRead::Whole);
  EXPECT_TRUE(receives.empty() && lengths.empty());
}

TEST_F(FramesIn, TheSecondOfALookShowsItsOwnLength) {
  EXPECT_EQ(ComeAndRead(Frame(10, "abcdef") + Frame(7, "xyz")), FrameRead::Whole);
  EXPECT_EQ(Read(), FrameRead::Whole);
  EXPECT_EQ(lengths, (std::vector<int>{6, 3}));
  EXPECT_EQ(receives, (std::vector<int>{4, 6, 4, 3}));
}

TEST_F(FramesIn, TheLengthWordMayNotCountItself) {
  Come(Frame(6, "abcdef") + "rest");
  ExpectFrame(Frame(6, "abcdef"), kPlain);
}

TEST_F(FramesIn, TheSizeCountsTheLengthWord) {
  unsigned char area[4];
  const std::uint32_t length = 20;
  std::memcpy(area, &length, sizeof area);
  EXPECT_EQ(FrameSize(area, kCounting), 20U);
  EXPECT_EQ(FrameSize(area, kPlain), 24U);
}

TEST_F(FramesIn, NothingComeYetIsLaterAndTracesNothing) {
  EXPECT_EQ(Read(), FrameRead::Later);
  EXPECT_TRUE(receives.empty());
}

TEST_F(FramesIn, AFrameThatComesByteByByteIsPutTogether) {
  ComeInBytes(Frame(9, "12345"), kCounting);
  EXPECT_EQ(lengths, std::vector<int>{5}) << "the length is told once";
}

TEST_F(FramesIn, TheNextFrameBeginsAnew) {
  EXPECT_EQ(ComeAndRead(Frame(9, "12345").substr(0, 6)), FrameRead::Later);
  Come("345" + Frame(6, "xy"));
  ExpectFrame(Frame(9, "12345"), kCounting);
  ExpectFrame(Frame(6, "xy"), kCounting);
}

TEST_F(FramesIn, HalfAFrameAndTheEndIsClosed) {
  EXPECT_EQ(ComeAndRead(Frame(9, "12")), FrameRead::Later);
  CloseFar();
  EXPECT_EQ(Read(), FrameRead::Closed);
  EXPECT_EQ(receives.back(), 0);
}

TEST_F(FramesIn, WhatALookHasTakenBeforeTheEndShows) {
  EXPECT_EQ(Read(), FrameRead::Later);
  Come(Frame(9, "12"));
  EXPECT_FALSE(LookAhead(Ours()));
  CloseFar();
  EXPECT_TRUE(LookAhead(Ours()));
  EXPECT_EQ(Read(), FrameRead::Closed);
  EXPECT_EQ(receives, (std::vector<int>{4, 2, 0}));
}

TEST_F(FramesIn, TheEndBeforeAFrameIsClosed) {
  CloseFar();
  EXPECT_EQ(Read(), FrameRead::Closed);
}

TEST_F(FramesIn, AFrameWithoutABodyCountsAsClosedAndDoesNotWait) {
  EXPECT_EQ(ComeAndRead(Frame(0, ""), kPlain), FrameRead::Closed);
}

TEST_F(FramesIn, LengthsOutOfBoundsAreRefusedWithoutReadingOn) {
  for (const std::uint32_t length : {0U, 4U, 8189U, 0x80000000U, 0xFFFFFFFFU}) {
    EXPECT_EQ(ComeAndRead(Frame(length, "")), FrameRead::BadLength) << length;
    EXPECT_EQ(Area(4), Frame(length, ""));
    ForgetDescriptor(Ours());
  }
}

TEST_F(FramesIn, TheLargestAndTheSmallestLengthAreTaken) {
  EXPECT_EQ(ComeAndRead(Frame(5, "x")), FrameRead::Whole);
  EXPECT_EQ(ComeAndRead(Frame(8188, std::string(8184, 'z'))), FrameRead::Whole);
  EXPECT_EQ(ComeAndRead(Frame(8188, std::string(8188, 'z')), kPlain), FrameRead::Whole);
  EXPECT_EQ(Area(8192).substr(4), std::string(8188, 'z'));
}

TEST_F(FramesIn, AFailedReceiveGivesItsError) {
  char byte;
  ASSERT_EQ(recv(-1, &byte, 1, 0), -1);
  EXPECT_EQ(ReadFrame(-1, reinterpret_cast<unsigned char*>(&byte), kCounting), FrameRead::Failed);
  EXPECT_EQ(errno, EBADF);
}

TEST_F(FramesIn, APeerThatLeavesAnswersUnreadFailsTheReceiveOnce) {
  ASSERT_EQ(send(Ours(), "answer", 6, 0), 6);
  CloseFar();
  EXPECT_EQ(Read(), FrameRead::Failed);
  EXPECT_EQ(errno, ECONNRESET);
  EXPECT_EQ(Read(), FrameRead::Closed);
}

TEST_F(FramesIn, ErrnoStaysUnlessTheReceiveFailed) {
  const auto read = [&] { return Read(); };
  EXPECT_EQ(KeepingErrno(read), FrameRead::Later);
  Come(Frame(9, "12"));
  EXPECT_EQ(KeepingErrno(read), FrameRead::Later);
  Come("345");
  EXPECT_EQ(KeepingErrno(read), FrameRead::Whole);
  CloseFar();
  EXPECT_EQ(KeepingErrno(read), FrameRead::Closed);
}

TEST_F(FramesIn, WithoutMemoryHalfAFrameFails) {
  Come(Frame(9, "12"));
  const NoMemory none;
  EXPECT_EQ(Read(), FrameRead::NoMemory);
  EXPECT_EQ(errno, ENOMEM);
}

TEST_F(FramesIn, AWholeFrameNeedsNoMemory) {
  Come(Frame(9, "12345"));
  const FailingAllocations failing;
  EXPECT_EQ(Read(), FrameRead::Whole);
}

TEST_F(FramesIn, NoMemoryIsHeldBetweenFrames) {
  EXPECT_EQ(ComeAndRead(Frame(9, "12345")), FrameRead::Whole);
  const NoMemory none;
  EXPECT_EQ(ComeAndRead(Frame(9, "12345")), FrameRead::NoMemory);
}

TEST_F(FramesIn, AForgottenDescriptorLosesItsHalfFrame) {
  EXPECT_EQ(ComeAndRead(Frame(9, "12")), FrameRead::Later);
  ForgetDescriptor(Ours());
  Come(Frame(6, "xy"));
  ExpectFrame(Frame(6, "xy"), kCounting);
}

// What has come is taken with one call, whatever the stream is.
class FramesAhead : public Streams {
 protected:
  bool Waits() const { return FrameWaits(Ours()); }
};

TEST_F(FramesAhead, AreHandedOutOneByOneInOrder) {
  Come(Frame(1, "a") + Frame(2, "bb") + Frame(3, "ccc"));
  EXPECT_FALSE(Waits());
  for (const char* body : {"a", "bb", "ccc"}) {
    const std::string text = body;
    ExpectFrame(Frame(static_cast<std::uint32_t>(text.size()), text), kPlain);
    EXPECT_EQ(Waits(), text != "ccc");
  }
  EXPECT_EQ(Read(kPlain), FrameRead::Later);
}

TEST_F(FramesAhead, APartThatHasComeDoesNotCountAsWaiting) {
  EXPECT_EQ(ComeAndRead(Frame(1, "a") + Frame(6, "half"), kPlain), FrameRead::Whole);
  EXPECT_FALSE(Waits());
  EXPECT_EQ(Read(kPlain), FrameRead::Later);
  Come("xx");
  ExpectFrame(Frame(6, "halfxx"), kPlain);
}

TEST_F(FramesAhead, MayComeByteByByte) { ComeInBytes(Frame(5, "12345"), kPlain); }

TEST_F(FramesAhead, ManyLargeOnesAllComeThrough) {
  for (int round = 0; round < 5; ++round) {
    for (char c = 'a'; c < 'f'; ++c) Come(Frame(8188, std::string(8188, c)));
    for (char c = 'a'; c < 'f'; ++c) ExpectFrame(Frame(8188, std::string(8188, c)), kPlain);
  }
  EXPECT_FALSE(Waits());
}

TEST_F(FramesAhead, MoreIsExpectedAfterMuchUntilALookFindsNothing) {
  EXPECT_FALSE(MoreHasCome(Ours()));
  EXPECT_EQ(ComeAndRead(Frame(8188, std::string(8188, 'a')), kPlain), FrameRead::Whole);
  EXPECT_TRUE(MoreHasCome(Ours()));
  EXPECT_EQ(Read(kPlain), FrameRead::Later);
  EXPECT_FALSE(MoreHasCome(Ours())) << "the descriptor would be read again and again";
}

TEST_F(FramesAhead, WhatIsOutOfBoundsWaitsToBeRefusedAtItsTurn) {
  EXPECT_EQ(ComeAndRead(Frame(1, "a") + Frame(8189, ""), kPlain), FrameRead::Whole);
  EXPECT_TRUE(Waits());
  EXPECT_EQ(Read(kPlain), FrameRead::BadLength);
  EXPECT_EQ(Area(4), Frame(8189, ""));
}

TEST_F(FramesAhead, OneWithoutABodyCountsAsClosedAtItsTurn) {
  EXPECT_EQ(ComeAndRead(Frame(1, "a") + Frame(0, ""), kPlain), FrameRead::Whole);
  EXPECT_TRUE(Waits());
  EXPECT_EQ(Read(kPlain), FrameRead::Closed);
}

TEST_F(FramesAhead, WholeOnesComeBeforeTheEnd) {
  Come(Frame(1, "a") + Frame(1, "b") + Frame(9, "half"));
  CloseFar();
  EXPECT_EQ(Read(kPlain), FrameRead::Whole);
  EXPECT_EQ(Read(kPlain), FrameRead::Whole);
  EXPECT_EQ(Read(kPlain), FrameRead::Closed);
}

TEST_F(FramesAhead, AForgottenDescriptorHasNoneWaiting) {
  EXPECT_EQ(ComeAndRead(Frame(1, "a") + Frame(1, "b"), kPlain), FrameRead::Whole);
  ForgetDescriptor(Ours());
  EXPECT_FALSE(Waits());
  Come(Frame(1, "c"));
  ExpectFrame(Frame(1, "c"), kPlain);
}

TEST_F(FramesAhead, ALookTakesThemAndTellsOfTheEnd) {
  EXPECT_FALSE(LookAhead(Ours())) << "it has not been read before";
  EXPECT_EQ(Read(kPlain), FrameRead::Later);
  EXPECT_FALSE(KeepingErrno([&] { return LookAhead(Ours()); }));
  Come(Frame(1, "a"));
  EXPECT_TRUE(LookAhead(Ours()));
  EXPECT_TRUE(Waits());
  CloseFar();
  EXPECT_EQ(Read(kPlain), FrameRead::Whole);
  EXPECT_FALSE(Waits());
  EXPECT_TRUE(LookAhead(Ours())) << "the end counts";
  EXPECT_TRUE(Waits());
  EXPECT_EQ(Read(kPlain), FrameRead::Closed);
  EXPECT_FALSE(Waits());
}

TEST_F(FramesAhead, AreReadAfterAFailureThatALookHasMet) {
  EXPECT_EQ(Read(kPlain), FrameRead::Later);
  Come(Frame(1, "a"));
  ASSERT_EQ(send(Ours(), "unread", 6, 0), 6);
  CloseFar();
  EXPECT_EQ(Read(kPlain), FrameRead::Whole);
  EXPECT_TRUE(LookAhead(Ours()));
  EXPECT_EQ(Read(kPlain), FrameRead::Failed);
  EXPECT_EQ(errno, ECONNRESET);
}

TEST_F(FramesAhead, ErrnoStaysUnlessTheReceiveFailed) {
  const auto read = [&] { return Read(kPlain); };
  EXPECT_EQ(KeepingErrno(read), FrameRead::Later);
  Come(Frame(1, "a"));
  EXPECT_EQ(KeepingErrno(read), FrameRead::Whole);
  CloseFar();
  EXPECT_EQ(KeepingErrno(read), FrameRead::Closed);
}

class BytesOut : public Streams {};

TEST_F(BytesOut, GoOutAtOnceWhenThePeerTakesThem) {
  EXPECT_EQ(Send("hello", &kTraced), 0);
  EXPECT_EQ(Take(), "hello");
  EXPECT_EQ(sends, std::vector<int>{5});
  EXPECT_EQ(UnsentBytes(Ours()), 0U);
  EXPECT_EQ(UnsentDescriptors(), 0);
  EXPECT_FALSE(IsWritten(Ours()));
}

TEST_F(BytesOut, WhatThePeerDoesNotTakeIsKeptAndTheDescriptorAwaitsWriting) {
  const std::string all = FillUp();
  EXPECT_GT(UnsentBytes(Ours()), 0U);
  EXPECT_EQ(UnsentDescriptors(), 1);
  EXPECT_TRUE(IsWritten(Ours()));
  EXPECT_EQ(g_DbcI.SocketSets.MaxSocket, Ours() + 1);
  EXPECT_EQ(Take().size() + UnsentBytes(Ours()), all.size());
}

TEST_F(BytesOut, TheWriteRegistrationHasTheCallersPlace) {
  FillUp();
  UNREGISTER_SOCKET_FOR_WRITE_EVENT(kHere, 1, Ours());
  const CapturedLog log;
  Send("x");
  EXPECT_TRUE(log.Contains("test:   7"));
  EXPECT_TRUE(log.Contains("|REGISTER_SOCKET_FOR_WRITE_EVENT " + std::to_string(Ours()) + "\n"));
}

TEST_F(BytesOut, KeepTheirOrder) {
  std::string all = FillUp();
  EXPECT_EQ(Send("behind"), 0);
  all += "behind";
  std::string came = Take();
  EXPECT_EQ(Send("last", &kTraced), 0) << "the peer takes again, but what is kept goes first";
  EXPECT_TRUE(sends.empty());
  all += "last";
  came += TakeAll();
  EXPECT_TRUE(came == all);
  EXPECT_EQ(UnsentDescriptors(), 0);
  EXPECT_FALSE(IsWritten(Ours()));
}

TEST_F(BytesOut, AFlushSendsAsMuchAsThePeerTakes) {
  FillUp();
  const std::string more(3000000, 'm');
  EXPECT_EQ(Send(more), 0);
  const std::size_t before = UnsentBytes(Ours());
  EXPECT_EQ(Flush(), 0);
  EXPECT_EQ(UnsentBytes(Ours()), before) << "the peer took nothing";
  Take();
  EXPECT_EQ(Flush(), 0);
  EXPECT_LT(UnsentBytes(Ours()), before);
  EXPECT_GT(UnsentBytes(Ours()), 0U);
  EXPECT_TRUE(IsWritten(Ours()));
}

// What came behind would be taken for the rest.
TEST_F(BytesOut, APartWhoseRestCannotBeKeptEndsTheStream) {
  const std::string frame(3000000, 'f');
  {
    const FailingAllocations failing;
    EXPECT_EQ(Send(frame), -1);
    EXPECT_EQ(errno, ENOMEM);
  }
  EXPECT_LT(Take().size(), frame.size());
  EXPECT_EQ(Send("behind"), -1);
  EXPECT_EQ(Take(), "");
}

TEST_F(BytesOut, FlushingNothingIsNoFailure) {
  EXPECT_EQ(Flush(), 0);
  EXPECT_EQ(FlushBytes(kHere, 1, -1), 0);
  EXPECT_EQ(FlushBytes(kHere, 1, FD_SETSIZE), 0);
}

TEST_F(BytesOut, ASendToAClosedPeerFailsWithoutASignal) {
  CloseFar();
  EXPECT_EQ(Send("x", &kTraced), -1);
  EXPECT_EQ(errno, EPIPE);
  EXPECT_EQ(sends, std::vector<int>{-1});
  EXPECT_EQ(failures, std::vector<int>{EPIPE});
  EXPECT_EQ(UnsentBytes(Ours()), 0U);
}

TEST_F(BytesOut, AFlushToAClosedPeerFails) {
  FillUp();
  CloseFar();
  EXPECT_EQ(Flush(), -1);
  EXPECT_TRUE(errno == EPIPE || errno == ECONNRESET) << errno;
}

TEST_F(BytesOut, AClosedDescriptorAndNumbersOutOfBoundsFail) {
  for (const int fd : {-1, FD_SETSIZE, FD_SETSIZE + 5}) {
    errno = 0;
    EXPECT_EQ(SendBytes(kHere, 1, fd, "x", 1), -1) << fd;
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(UnsentBytes(fd), 0U);
    ForgetDescriptor(fd);
  }
}

TEST_F(BytesOut, WithoutMemoryWhatThePeerDoesNotTakeFails) {
  Send(std::string(3000000, 'm'));
  ForgetDescriptor(Ours());
  const NoMemory none;
  EXPECT_EQ(Send("x"), -1);
  EXPECT_EQ(errno, ENOMEM);
  EXPECT_EQ(UnsentBytes(Ours()), 0U);
}

TEST_F(BytesOut, WithoutMemoryWhatIsKeptStays) {
  FillUp();
  const std::size_t before = UnsentBytes(Ours());
  EXPECT_EQ(WithoutMemory([&] { return Send(std::string(100000, 'x')); }), -1);
  EXPECT_EQ(UnsentBytes(Ours()), before);
}

TEST_F(BytesOut, ErrnoStaysWhenNothingFails) {
  EXPECT_EQ(KeepingErrno([&] { return Send("x"); }), 0);
  FillUp();
  EXPECT_EQ(KeepingErrno([&] { return Send("kept"); }), 0);
  EXPECT_EQ(KeepingErrno([&] { return Flush(); }), 0);
}

TEST_F(BytesOut, ErrnoStaysWhenThePeerTakesNothing) {
  const std::string part(8188, 'x');
  while (send(Ours(), part.data(), part.size(), MSG_DONTWAIT) > 0) continue;
  EXPECT_EQ(KeepingErrno([&] { return Send("kept"); }), 0);
}

TEST_F(BytesOut, TheErrorOfAFailureIsTheSystemsWhateverIsDoneAboutIt) {
  constexpr OutputTrace kChanges = {.Sent = nullptr, .Failed = [](int) { errno = EIO; }};
  const std::string large(1 << 20, 'x');
  const FailingSystemCall broken(SystemCall::Send, EPIPE, 1);
  const FailingSystemCall notConnected(SystemCall::Shutdown, ENOTCONN);
  EXPECT_EQ(Send(large, &kChanges), -1);
  EXPECT_EQ(errno, EPIPE);
  EXPECT_EQ(notConnected.Calls(), 1);
}

// Bytes for links that are kept and go out together.
class BytesTogether : public BytesOut {
 protected:
  void SetUp() override {
    BytesOut::SetUp();
    REGISTER_SOCKET_FOR_THE_LINK(kHere, 1, Ours(), AddLink("A"));
    JoinOutput(true);
  }
  void TearDown() override {
    JoinOutput(false);
    ForgetDescriptor(Ours());
    BytesOut::TearDown();
  }
  int Release() {
    JoinOutput(false);
    return NextJoined() < 0 ? 0 : SendJoined(kHere, 1, NextJoined(), &taken_);
  }

  std::size_t taken_ = 0;
};

TEST_F(BytesTogether, GoOutTogetherInOrder) {
  EXPECT_EQ(Send("one ", &kTraced), 0);
  EXPECT_EQ(Send("two ", &kTraced), 0);
  EXPECT_EQ(Take(), "");
  EXPECT_EQ(NextJoined(), Ours());
  EXPECT_EQ(JoinedBytes(Ours()), 8U);
  EXPECT_FALSE(IsWritten(Ours()));
  EXPECT_EQ(Release(), 0);
  EXPECT_EQ(taken_, 8U);
  EXPECT_EQ(NextJoined(), -1);
  EXPECT_EQ(sends, std::vector<int>{8});
  EXPECT_EQ(Send("three"), 0);
  EXPECT_EQ(Take(), "one two three");
}

TEST_F(BytesTogether, MayBeMoreThanABlock) {
  std::string all;
  for (int i = 0; i < 20; ++i) {
    const std::string frame(8192, static_cast<char>('a' + i));
    EXPECT_EQ(Send(frame), 0);
    all += frame;
  }
  EXPECT_EQ(Release(), 0);
  EXPECT_TRUE(TakeAll() == all);
}

TEST_F(BytesTogether, AreKeptForEachLink) {
  const FakeClient other;
  REGISTER_SOCKET_FOR_THE_LINK(kHere, 1, other.Socket(), AddLink("B"));
  EXPECT_EQ(Send("mine"), 0);
  EXPECT_EQ(SendBytes(kHere, 1, other.Socket(), "other", 5), 0);
  EXPECT_EQ(other.ReceivedBytes(), "");
  EXPECT_EQ(Release(), 0);
  EXPECT_EQ(Take(), "mine");
  EXPECT_EQ(Release(), 0);
  EXPECT_EQ(other.ReceivedBytes(), "other");
}

TEST_F(BytesTogether, OfAClientThereAreNone) {
  UNREGISTER_SOCKET_FOR_THE_LINK(kHere, 1, Ours());
  EXPECT_EQ(Send("answer"), 0);
  EXPECT_EQ(Take(), "answer");
}

TEST_F(BytesTogether, ThatCannotBeSentTellWhatWasTaken) {
  EXPECT_EQ(Send("lost", &kTraced), 0);
  CloseFar();
  EXPECT_EQ(Release(), -1);
  EXPECT_EQ(errno, EPIPE);
  EXPECT_EQ(taken_, 0U);
  EXPECT_EQ(failures, std::vector<int>{EPIPE});
  EXPECT_EQ(NextJoined(), -1);
}

TEST_F(BytesTogether, WithoutMemoryGoOutAloneAndErrnoStays) {
  const NoMemory nowhere;
  EXPECT_EQ(KeepingErrno([&] { return Send("alone"); }), 0);
  EXPECT_EQ(Take(), "alone");
}

TEST_F(BytesTogether, OfAForgottenDescriptorAreDropped) {
  EXPECT_EQ(Send("gone"), 0);
  ForgetDescriptor(Ours());
  EXPECT_EQ(NextJoined(), -1);
  EXPECT_EQ(Take(), "");
}

TEST_F(BytesTogether, DoNotOvertakeWhatIsKeptForThePeer) {
  JoinOutput(false);
  std::string all = FillUp();
  JoinOutput(true);
  EXPECT_EQ(Send("behind"), 0);
  EXPECT_EQ(NextJoined(), -1);
  EXPECT_TRUE(TakeAll() == all + "behind");
}

TEST_F(BytesTogether, ThatThePeerDoesNotTakeAwaitWriting) {
  const std::string much(3000000, 'm');
  EXPECT_EQ(Send(much), 0);
  EXPECT_EQ(Release(), 0);
  EXPECT_GT(UnsentBytes(Ours()), 0U);
  EXPECT_EQ(taken_ + UnsentBytes(Ours()), much.size());
  EXPECT_TRUE(IsWritten(Ours()));
}

TEST_F(BytesOut, AForgottenDescriptorKeepsNothing) {
  FillUp();
  ForgetDescriptor(Ours());
  EXPECT_EQ(UnsentBytes(Ours()), 0U);
  EXPECT_EQ(UnsentDescriptors(), 0);
}

}  // namespace
