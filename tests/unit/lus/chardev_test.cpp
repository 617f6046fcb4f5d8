// Tests of the control device's registration and of the checks every ioctl
// passes before its command runs.
#include "lus_fixture.h"
#include "lus_ioctl.h"

namespace lustest {
namespace {

using ControlDeviceTest = LusTest;

struct Caller {
   hyksim::UserProcess proc{"lusctl"};
   int fd = -1;
   hyk_UserVA header = 0;
   Caller() {
      EXPECT_EQ(proc.Open("lus", &fd), HYK_OK);
      header = proc.Alloc(sizeof(LusIoctlHeader));
      LusIoctlHeader h{};
      proc.Write(header, &h, sizeof h);
   }
   ~Caller() { proc.Close(fd); }
   hyk_Status Ioctl(uint32_t cmd) { return proc.Ioctl(fd, cmd, header); }
};

TEST_F(ControlDeviceTest, DeviceIsRegisteredAtLoadAndGoneAfterUnload) {
   Load();
   auto devs = hyksim::CharDevs();
   ASSERT_EQ(devs.size(), 1u);
   EXPECT_EQ(devs[0].name, "lus");
   EXPECT_NE(Var<hyk_CharDevHandle>("lusCharDevHandle"), 0u);
   {
      Caller c;
      EXPECT_EQ(hyksim::CharDevs()[0].openFiles, 1u);
   }
   ASSERT_EQ(UnloadLus(), HYK_OK);
   EXPECT_TRUE(hyksim::CharDevs().empty());
}

TEST_F(ControlDeviceTest, UnknownCommandIsRefusedWithBadParameter) {
   Load();
   Caller c;
   EXPECT_EQ(c.Ioctl(15), HYK_BAD_PARAM);
   EXPECT_EQ(c.Ioctl(0xffffffffu), HYK_BAD_PARAM);
   EXPECT_EQ(CountModuleLines(ErrorCodeLineRe("lusCharDevIoctl", 7, "LUS - Unknown IOCTL cmd : Bad parameter"), 1), 2u);
}

TEST_F(ControlDeviceTest, RuntimePhaseRegistrationNeedsFromBuild) {
   Load();
   Caller c;
   EXPECT_EQ(c.Ioctl(2), HYK_BAD_PARAM);
   EXPECT_EQ(c.Ioctl(3), HYK_BAD_PARAM);
   EXPECT_EQ(CountModuleLines(ErrorCodeLineRe("lusCharDevIoctl", 7, "LUS not loaded with fromBuild MOD PARAM : Bad parameter"), 1), 2u);
   // Only the header was copied: the portset count was not read.
   EXPECT_EQ(hyksim::CallCount("hyk_CopyFromUser"), 2u);
}

TEST_F(ControlDeviceTest, HeaderOutsideTheCallersMemoryFailsTheCopy) {
   Load();
   hyksim::UserProcess proc("lusctl");
   int fd = -1;
   ASSERT_EQ(proc.Open("lus", &fd), HYK_OK);
   EXPECT_EQ(proc.Ioctl(fd, 0, 0x10), HYK_BAD_ADDRESS);
   EXPECT_EQ(CountModuleLines(ErrorCodeLineRe("lusCharDevIoctl", 38,
                 "Failed to copy out ioctl data from user.  : Invalid address"), 1), 1u);
   proc.Close(fd);
}

TEST_F(ControlDeviceTest, UnregistrationFailureIsLoggedAndTheHandleDropped) {
   Load();
   hyksim::FaultSpec desc;
   desc.op = "hyk_CharDevUnregister";
   desc.nth = 1;
   desc.status = HYK_BUSY;
   hyksim::InjectFault(desc);
   ASSERT_EQ(UnloadLus(), HYK_OK);
   EXPECT_EQ(CountModuleLines(ErrorCodeLineRe("lusCharDevDeactivate", 4, "Failed to unregister char devices : Busy"), 1), 1u);
   EXPECT_EQ(hyksim::LogCount("module lus left device lus registered"), 1u);
}

}  // namespace
}  // namespace lustest
