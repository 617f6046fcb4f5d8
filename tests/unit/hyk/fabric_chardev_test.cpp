// Tests of the simulated host's character devices and user processes:
// registration, open/ioctl/close on the process's own thread with the owner
// pushed, user copies checked against the process's mappings (at and across
// range ends, guard pages, other processes, non-serving threads), unregister
// while open, unload refused while a file is open, and fault injection.
#include <atomic>
#include <cstring>
#include <thread>

#include "fabric_test_support.h"

using namespace fabrictest;

namespace {

// What the device saw, written by its operations.
struct DevState {
   std::thread::id thread;
   hyk_ModuleID current = HYK_INVALID_MODULE_ID;
   uint32_t pid = 0;
   uint32_t lastCmd = 0;
   hyk_Status copyStatus = HYK_OK;
   uint8_t copied[64] = {};
   uint32_t copyLen = 0;
   int opens = 0, closes = 0, cleanups = 0;
   hyk_Status openAnswer = HYK_OK;
};

DevState *gDev = nullptr;   // the device's private state, as a module would keep it

hyk_Status DevOpen(hyk_CharDevFile *f) {
   gDev->opens++;
   gDev->pid = f->processID;
   gDev->thread = std::this_thread::get_id();
   gDev->current = hyk_ModuleCurrentID();
   f->privateData = gDev;
   return gDev->openAnswer;
}

hyk_Status DevClose(hyk_CharDevFile *f) {
   static_cast<DevState *>(f->privateData)->closes++;
   return HYK_OK;
}

// cmd = number of bytes to copy from the argument.
hyk_Status DevIoctl(hyk_CharDevFile *f, uint32_t cmd, hyk_UserVA arg) {
   auto *d = static_cast<DevState *>(f->privateData);
   d->thread = std::this_thread::get_id();
   d->current = hyk_ModuleCurrentID();
   d->lastCmd = cmd;
   d->copyLen = cmd;
   d->copyStatus = hyk_CopyFromUser(d->copied, arg, cmd);
   return d->copyStatus;
}

hyk_Status DevCleanup(void *privateData) {
   static_cast<DevState *>(privateData)->cleanups++;
   return HYK_OK;
}

// Writes "pong" back to the user buffer.
hyk_Status DevWrite(hyk_CharDevFile *, hyk_UserVA buf, uint64_t len, uint64_t *done) {
   hyk_Status st = hyk_CopyToUser(buf, "pong", static_cast<uint32_t>(len));
   *done = st == HYK_OK ? len : 0;
   return st;
}

const hyk_CharDevOps kOps = {DevOpen, DevClose, DevIoctl, nullptr, DevWrite, nullptr};

class CharDevTest : public FabricTest {
  protected:
   void SetUp() override {
      FabricTest::SetUp();
      gDev = &state_;
      owner_ = LoadModule("lus");
   }
   hyk_CharDevHandle Register(const char *name = "lus") {
      hyk_CharDevHandle h = 0;
      EXPECT_EQ(hyk_CharDevRegister(owner_, name, &kOps, DevCleanup, &state_, &h), HYK_OK);
      return h;
   }
   DevState state_;
   hyk_ModuleID owner_ = HYK_INVALID_MODULE_ID;
};

TEST_F(CharDevTest, RegisterRefusesDuplicatesAndBadArguments) {
   hyk_CharDevHandle h = Register();
   EXPECT_NE(h, 0u);
   hyk_CharDevHandle other = 0;
   EXPECT_EQ(hyk_CharDevRegister(owner_, "lus", &kOps, nullptr, nullptr, &other), HYK_EXISTS);
   EXPECT_EQ(hyk_CharDevRegister(owner_, nullptr, &kOps, nullptr, nullptr, &other), HYK_BAD_PARAM);
   EXPECT_EQ(hyk_CharDevRegister(owner_, "", &kOps, nullptr, nullptr, &other), HYK_BAD_PARAM);
   EXPECT_EQ(hyk_CharDevRegister(owner_, "x", nullptr, nullptr, nullptr, &other), HYK_BAD_PARAM);
   EXPECT_EQ(hyk_CharDevRegister(owner_, "x", &kOps, nullptr, nullptr, nullptr), HYK_BAD_PARAM);
   EXPECT_EQ(hyk_CharDevRegister(4711, "x", &kOps, nullptr, nullptr, &other), HYK_BAD_PARAM);
   std::string tooLong(HYK_NAME_LEN, 'd');
   EXPECT_EQ(hyk_CharDevRegister(owner_, tooLong.c_str(), &kOps, nullptr, nullptr, &other), HYK_NAME_TOO_LONG);
   EXPECT_EQ(other, 0u);
   auto devs = hyksim::CharDevs();
   ASSERT_EQ(devs.size(), 1u);
   EXPECT_EQ(devs[0].name, "lus");
   EXPECT_EQ(devs[0].owner, owner_);
   EXPECT_EQ(devs[0].openFiles, 0u);
}

TEST_F(CharDevTest, DeviceCallsRunOnTheProcessThreadWithTheOwnerPushed) {
   Register();
   hyksim::UserProcess proc("lusctl");
   int fd = -1;
   ASSERT_EQ(proc.Open("lus", &fd), HYK_OK);
   EXPECT_EQ(state_.opens, 1);
   EXPECT_EQ(state_.pid, proc.pid());
   EXPECT_NE(state_.thread, std::this_thread::get_id());
   EXPECT_EQ(state_.current, owner_);
   std::thread::id openThread = state_.thread;

   hyk_UserVA arg = proc.Alloc(24);
   const char hdr[24] = "header-of-24-bytes.....";
   proc.Write(arg, hdr, sizeof hdr);
   state_.current = HYK_INVALID_MODULE_ID;
   EXPECT_EQ(proc.Ioctl(fd, 24, arg), HYK_OK);
   EXPECT_EQ(state_.thread, openThread);
   EXPECT_EQ(state_.current, owner_);
   EXPECT_EQ(std::memcmp(state_.copied, hdr, sizeof hdr), 0);
   EXPECT_EQ(hyksim::CharDevs()[0].openFiles, 1u);
   EXPECT_EQ(proc.OpenFiles(), 1u);

   EXPECT_EQ(proc.Close(fd), HYK_OK);
   EXPECT_EQ(state_.closes, 1);
   EXPECT_EQ(hyksim::CharDevs()[0].openFiles, 0u);
   EXPECT_EQ(proc.Ioctl(fd, 0, arg), HYK_INVALID_HANDLE);
   EXPECT_EQ(proc.Close(fd), HYK_INVALID_HANDLE);
   EXPECT_EQ(hyk_ModuleCurrentID(), HYK_INVALID_MODULE_ID);
}

TEST_F(CharDevTest, OpenOfAnUnknownDeviceIsNotFound) {
   hyksim::UserProcess proc("lusctl");
   int fd = -1;
   EXPECT_EQ(proc.Open("lus", &fd), HYK_NOT_FOUND);
   EXPECT_EQ(proc.OpenFiles(), 0u);
}

TEST_F(CharDevTest, AFailedOpenLeavesNothingOpen) {
   Register();
   state_.openAnswer = HYK_NO_PERMISSION;
   hyksim::UserProcess proc("lusctl");
   int fd = -1;
   EXPECT_EQ(proc.Open("lus", &fd), HYK_NO_PERMISSION);
   EXPECT_EQ(proc.OpenFiles(), 0u);
   EXPECT_EQ(hyksim::CharDevs()[0].openFiles, 0u);
   EXPECT_EQ(hyksim::FindModule("lus")->useCount, 0u);
}

TEST_F(CharDevTest, EmptyOperationSlotsAreNotSupported) {
   hyk_CharDevOps ops = {DevOpen, nullptr, nullptr, nullptr, nullptr, nullptr};
   hyk_CharDevHandle h = 0;
   ASSERT_EQ(hyk_CharDevRegister(owner_, "bare", &ops, nullptr, nullptr, &h), HYK_OK);
   hyksim::UserProcess proc("p");
   int fd = -1;
   ASSERT_EQ(proc.Open("bare", &fd), HYK_OK);
   uint64_t done = 0;
   uint32_t events = 0;
   EXPECT_EQ(proc.Ioctl(fd, 1, 0), HYK_NOT_SUPPORTED);
   EXPECT_EQ(proc.DevRead(fd, 0, 1, &done), HYK_NOT_SUPPORTED);
   EXPECT_EQ(proc.Poll(fd, &events), HYK_NOT_SUPPORTED);
   EXPECT_EQ(proc.Close(fd), HYK_OK);   // no close slot: the file is closed all the same
   EXPECT_EQ(proc.OpenFiles(), 0u);
   hyk_CharDevOps noOpen = {};
   ASSERT_EQ(hyk_CharDevRegister(owner_, "closed", &noOpen, nullptr, nullptr, &h), HYK_OK);
   EXPECT_EQ(proc.Open("closed", &fd), HYK_NOT_SUPPORTED);
}

TEST_F(CharDevTest, CopyToUserWritesTheProcessMemory) {
   Register();
   hyksim::UserProcess proc("p");
   int fd = -1;
   ASSERT_EQ(proc.Open("lus", &fd), HYK_OK);
   hyk_UserVA buf = proc.Alloc(4);
   uint64_t done = 0;
   EXPECT_EQ(proc.DevWrite(fd, buf, 4, &done), HYK_OK);
   EXPECT_EQ(done, 4u);
   char back[4];
   proc.Read(buf, back, sizeof back);
   EXPECT_EQ(std::memcmp(back, "pong", 4), 0);
   EXPECT_EQ(proc.DevWrite(fd, buf + 1, 4, &done), HYK_BAD_ADDRESS);   // one byte past the end
   EXPECT_EQ(done, 0u);
}

// ---- user copies against the process's mappings ----

class UserCopyTest : public CharDevTest {
  protected:
   void SetUp() override {
      CharDevTest::SetUp();
      Register();
      ASSERT_EQ(proc_.Open("lus", &fd_), HYK_OK);
   }
   void TearDown() override {
      proc_.Close(fd_);
      CharDevTest::TearDown();
   }
   // Copies `len` bytes at `va` through the device, as the module would.
   hyk_Status CopyAt(hyk_UserVA va, uint32_t len) {
      std::memset(state_.copied, 0, sizeof state_.copied);
      return proc_.Ioctl(fd_, len, va);
   }
   hyksim::UserProcess proc_{"lusctl"};
   int fd_ = -1;
};

TEST_F(UserCopyTest, CopyEndingExactlyAtTheRangeEndSucceeds) {
   hyk_UserVA va = proc_.Alloc(32);
   uint8_t pattern[32];
   for (int i = 0; i < 32; i++) {
      pattern[i] = static_cast<uint8_t>(0xa0 + i);
   }
   proc_.Write(va, pattern, sizeof pattern);
   EXPECT_EQ(CopyAt(va, 32), HYK_OK);
   EXPECT_EQ(std::memcmp(state_.copied, pattern, 32), 0);
   EXPECT_EQ(CopyAt(va + 24, 8), HYK_OK);
   EXPECT_EQ(std::memcmp(state_.copied, pattern + 24, 8), 0);
   EXPECT_EQ(CopyAt(va + 31, 1), HYK_OK);
   EXPECT_EQ(state_.copied[0], pattern[31]);
}

TEST_F(UserCopyTest, CopyCrossingTheRangeEndFailsAndCopiesNothing) {
   hyk_UserVA va = proc_.Alloc(32);
   uint8_t ones[32];
   std::memset(ones, 1, sizeof ones);
   proc_.Write(va, ones, sizeof ones);
   EXPECT_EQ(CopyAt(va + 25, 8), HYK_BAD_ADDRESS);
   EXPECT_EQ(CopyAt(va, 33), HYK_BAD_ADDRESS);
   EXPECT_EQ(CopyAt(va + 32, 1), HYK_BAD_ADDRESS);
   for (uint8_t b : state_.copied) {
      EXPECT_EQ(b, 0);
   }
}

TEST_F(UserCopyTest, CopyBeforeTheRangeOrInTheGuardBetweenRangesFails) {
   hyk_UserVA a = proc_.Alloc(16);
   hyk_UserVA b = proc_.Alloc(16);
   ASSERT_GT(b, a + 16);   // not adjacent: an unmapped gap lies between
   EXPECT_EQ(CopyAt(a - 1, 2), HYK_BAD_ADDRESS);
   EXPECT_EQ(CopyAt(a + 16, 4), HYK_BAD_ADDRESS);
   EXPECT_EQ(CopyAt(b - 4, 4), HYK_BAD_ADDRESS);
   EXPECT_EQ(CopyAt(a + 8, static_cast<uint32_t>(b - a)), HYK_BAD_ADDRESS);   // spans both ranges
   EXPECT_EQ(CopyAt(b, 16), HYK_OK);
}

TEST_F(UserCopyTest, NullAndWrappingAddressesFail) {
   proc_.Alloc(16);
   EXPECT_EQ(CopyAt(0, 4), HYK_BAD_ADDRESS);
   EXPECT_EQ(CopyAt(~uint64_t{0} - 1, 4), HYK_BAD_ADDRESS);
}

TEST_F(UserCopyTest, AProcessDoesNotReachAnotherProcesssMemory) {
   hyksim::UserProcess other("other");
   hyk_UserVA theirs = other.Alloc(16);
   // Same layout: the first range of each process sits at the same address,
   // so the copy must be resolved against the serving process only.
   hyk_UserVA mine = proc_.Alloc(8);
   EXPECT_EQ(theirs, mine);
   EXPECT_EQ(CopyAt(mine, 8), HYK_OK);
   EXPECT_EQ(CopyAt(mine, 16), HYK_BAD_ADDRESS);
}

TEST_F(UserCopyTest, CopiesFromAThreadThatServesNoProcessFail) {
   hyk_UserVA va = proc_.Alloc(16);
   uint8_t buf[16];
   EXPECT_EQ(hyk_CopyFromUser(buf, va, sizeof buf), HYK_BAD_ADDRESS);
   EXPECT_EQ(hyk_CopyToUser(va, buf, sizeof buf), HYK_BAD_ADDRESS);
   std::thread other([&] { EXPECT_EQ(hyk_CopyFromUser(buf, va, sizeof buf), HYK_BAD_ADDRESS); });
   other.join();
}

TEST_F(UserCopyTest, InjectedCopyFaultIsReturnedToTheDevice) {
   hyk_UserVA va = proc_.Alloc(24);
   hyksim::FaultSpec f;
   f.op = "hyk_CopyFromUser";
   f.status = HYK_BAD_ADDRESS;
   f.nth = 1;
   hyksim::InjectFault(f);
   EXPECT_EQ(CopyAt(va, 24), HYK_BAD_ADDRESS);
   EXPECT_EQ(hyksim::InjectedFaultCount("hyk_CopyFromUser"), 1u);
   EXPECT_EQ(CopyAt(va, 24), HYK_OK);
}

TEST_F(UserCopyTest, AllocStopsAtTheProcessMemorySize) {
   hyksim::UserProcess small("small", 100);
   EXPECT_NE(small.Alloc(60), 0u);
   EXPECT_EQ(small.Alloc(41), 0u);
   EXPECT_NE(small.Alloc(40), 0u);
   EXPECT_EQ(small.Alloc(0), 0u);
}

TEST_F(UserCopyTest, HostSideWriteOutsideTheProcessMemoryPanics) {
   hyk_UserVA va = proc_.Alloc(8);
   EXPECT_DEATH(
      {
         char bytes[9] = {};
         proc_.Write(va, bytes, sizeof bytes);
      },
      "outside its memory");
}

// ---- unregistration and unload ----

TEST_F(CharDevTest, UnregisterIsBusyWhileAFileIsOpenThenCallsTheCleanup) {
   hyk_CharDevHandle h = Register();
   hyksim::UserProcess proc("p");
   int fd = -1;
   ASSERT_EQ(proc.Open("lus", &fd), HYK_OK);
   EXPECT_EQ(hyk_CharDevUnregister(h), HYK_BUSY);
   EXPECT_EQ(state_.cleanups, 0);
   ASSERT_EQ(proc.Close(fd), HYK_OK);
   EXPECT_EQ(hyk_CharDevUnregister(h), HYK_OK);
   EXPECT_EQ(state_.cleanups, 1);
   EXPECT_EQ(hyk_CharDevUnregister(h), HYK_INVALID_HANDLE);
   EXPECT_TRUE(hyksim::CharDevs().empty());
   EXPECT_EQ(proc.Open("lus", &fd), HYK_NOT_FOUND);
}

TEST_F(CharDevTest, UnloadIsRefusedWhileTheDeviceIsOpen) {
   Register();
   {
      hyksim::UserProcess proc("p");
      int fd = -1;
      ASSERT_EQ(proc.Open("lus", &fd), HYK_OK);
      EXPECT_EQ(hyksim::FindModule("lus")->useCount, 1u);
      EXPECT_EQ(hyksim::UnloadModule("lus"), HYK_BUSY);
      ASSERT_EQ(proc.Close(fd), HYK_OK);
   }
   EXPECT_EQ(hyksim::FindModule("lus")->useCount, 0u);
   EXPECT_EQ(hyksim::UnloadModule("lus"), HYK_OK);
}

TEST_F(CharDevTest, ProcessExitClosesItsFiles) {
   Register();
   {
      hyksim::UserProcess proc("p");
      int a = -1, b = -1;
      ASSERT_EQ(proc.Open("lus", &a), HYK_OK);
      ASSERT_EQ(proc.Open("lus", &b), HYK_OK);
      EXPECT_NE(a, b);
      EXPECT_EQ(hyksim::CharDevs()[0].openFiles, 2u);
   }
   EXPECT_EQ(state_.closes, 2);
   EXPECT_EQ(hyksim::CharDevs()[0].openFiles, 0u);
   EXPECT_EQ(hyksim::FindModule("lus")->useCount, 0u);
}

TEST_F(CharDevTest, UnloadReportsADeviceTheModuleLeftRegistered) {
   Register();
   ASSERT_EQ(hyksim::UnloadModule("lus"), HYK_OK);
   EXPECT_TRUE(hyksim::LogContains("module lus left device lus registered"));
   EXPECT_TRUE(hyksim::CharDevs().empty());
   EXPECT_EQ(state_.cleanups, 0);   // the module's code is gone: not called
}

TEST_F(CharDevTest, RunExecutesOnTheProcessThreadAndNests) {
   Register();
   hyksim::UserProcess proc("p");
   std::thread::id ran;
   int fd = -1;
   hyk_Status open = HYK_FAILURE, close = HYK_FAILURE;
   proc.Run([&] {
      ran = std::this_thread::get_id();
      open = proc.Open("lus", &fd);   // a device call from the body runs inline
      close = proc.Close(fd);
   });
   EXPECT_NE(ran, std::this_thread::get_id());
   EXPECT_EQ(state_.thread, ran);
   EXPECT_EQ(open, HYK_OK);
   EXPECT_EQ(close, HYK_OK);
}

TEST_F(CharDevTest, InjectedRegisterAndUnregisterFaults) {
   hyksim::FaultSpec f;
   f.op = "hyk_CharDevRegister";
   f.status = HYK_NO_MEMORY;
   f.nth = 1;
   hyksim::InjectFault(f);
   hyk_CharDevHandle h = 0;
   EXPECT_EQ(hyk_CharDevRegister(owner_, "lus", &kOps, DevCleanup, &state_, &h), HYK_NO_MEMORY);
   EXPECT_TRUE(hyksim::CharDevs().empty());
   h = Register();
   f.op = "hyk_CharDevUnregister";
   f.status = HYK_FAILURE;
   hyksim::InjectFault(f);
   EXPECT_EQ(hyk_CharDevUnregister(h), HYK_FAILURE);
   EXPECT_EQ(hyksim::CharDevs().size(), 1u);
   EXPECT_EQ(state_.cleanups, 0);
   EXPECT_EQ(hyk_CharDevUnregister(h), HYK_OK);
}

}  // namespace
