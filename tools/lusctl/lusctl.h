// lusctl.h -- the upgrade tool's library: builds each command's payload in
// the calling user process's memory and issues the command on the device
// "lus" through the host's device interface.
//
// A Client belongs to one simulated user process and keeps the device open
// for its lifetime.  Each method is one device command and returns the
// command's host status.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "hyk/hyk.h"
#include "hyksim/fabric.h"
#include "lus_ioctl.h"

namespace lusctl {

// A portset entry of a portset-list command.
struct PortsetArg {
   std::string name;
   uint32_t op = 0;        // fast-datapath command only
   uint32_t fdpMode = 0;   // fast-datapath command only
};

struct ModuleArg {
   bool isFromBuild;
   hyk_ModuleID moduleID;
};

class Client {
  public:
   // Opens the device in `process`; check ok() / openStatus().
   explicit Client(hyksim::UserProcess &process);
   ~Client();
   Client(const Client &) = delete;
   Client &operator=(const Client &) = delete;

   bool ok() const { return openStatus_ == HYK_OK; }
   hyk_Status openStatus() const { return openStatus_; }

   // Commands 0-3: registration of type 1-4.
   hyk_Status Register(uint32_t regType, const std::vector<PortsetArg> &portsets, bool legacy = false);
   hyk_Status PreUnload(const std::vector<PortsetArg> &portsets, bool legacy = false);      // 4
   hyk_Status Restore(const std::vector<PortsetArg> &portsets, bool legacy = false);        // 5
   hyk_Status BlockPorts(const std::vector<PortsetArg> &portsets, uint32_t maxOutageSec);   // 6
   hyk_Status PreDualLoad();                                                                // 7
   hyk_Status GlobalConfigSaveRestore();                                                    // 8
   hyk_Status PsUpgrade(const std::string &portset, const std::vector<ModuleArg> &modules); // 9
   hyk_Status UpgradePort(uint32_t arg0, hyk_PortID port, int8_t mode);                     // 10
   hyk_Status StateCollectionComplete();                                                    // 11
   hyk_Status StateRestoreComplete();                                                       // 12
   hyk_Status FdpOp(const std::string &portset, uint32_t op, uint32_t fdpMode);             // 13
   hyk_Status RaiseCswitchEvents(const std::vector<PortsetArg> &portsets);                  // 14

   // Any command with a raw payload (for protocol tests and the fuzzer):
   // `payload` is copied into the process and the header says `length`.
   hyk_Status Raw(uint32_t cmd, const std::vector<uint8_t> &payload, uint32_t length);
   hyk_Status Raw(uint32_t cmd, const std::vector<uint8_t> &payload) {
      return Raw(cmd, payload, static_cast<uint32_t>(payload.size()));
   }
   // A command whose header names an arbitrary user address.
   hyk_Status RawAt(uint32_t cmd, hyk_UserVA data, uint32_t length);
   // A command whose header itself lies at an arbitrary user address.
   hyk_Status RawHeaderAt(uint32_t cmd, hyk_UserVA header);

   // User address of the payload of the last command that had one (0 when
   // none had yet).  The payload always ends exactly where its mapping ends,
   // so a copy that runs past it fails as it would past a fresh allocation.
   hyk_UserVA lastPayload() const { return lastPayload_; }

  private:
   hyk_Status Issue(uint32_t cmd, const std::vector<uint8_t> &payload, uint32_t length);
   // Places `bytes` so that they end at the end of the scratch mapping
   // (grown when too small); returns their user address, 0 when the
   // process's memory is exhausted.
   hyk_UserVA Place(const std::vector<uint8_t> &bytes);

   hyksim::UserProcess &process_;
   int fd_ = -1;
   hyk_Status openStatus_;
   // One header and one payload mapping, reused by every command so that a
   // long run of commands (the fuzzer's) does not exhaust the process.
   hyk_UserVA header_ = 0;
   hyk_UserVA scratch_ = 0;
   uint64_t scratchLen_ = 0;
   hyk_UserVA lastPayload_ = 0;
};

// The portset list of a command, by names only.
std::vector<PortsetArg> PortsetArgs(const std::vector<std::string> &names);

// Bytes as hexadecimal digits, and back (false: an odd count or a non-digit).
std::string HexOf(const std::vector<uint8_t> &bytes);
bool BytesOfHex(const std::string &hex, std::vector<uint8_t> *out);

// Payload builders (plain bytes, exactly as laid out on the wire).
std::vector<uint8_t> PortsetQuery(const std::vector<PortsetArg> &portsets, bool legacy,
                                  uint32_t maxOutageSec);
std::vector<uint8_t> PsUpgradeQuery(const std::string &portset, const std::vector<ModuleArg> &modules);
std::vector<uint8_t> UpgradePortQuery(uint32_t arg0, hyk_PortID port, int8_t mode);

}  // namespace lusctl
