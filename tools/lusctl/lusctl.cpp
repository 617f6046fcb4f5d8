// lusctl.cpp -- payload builders and device commands of the upgrade tool.
#include "lusctl.h"

#include <algorithm>
#include <cstring>

namespace lusctl {

namespace {

void CopyName(char *dst, const std::string &name) {
   std::memset(dst, 0, LUS_PORTSET_NAME_LEN);
   std::memcpy(dst, name.data(), std::min<size_t>(name.size(), LUS_PORTSET_NAME_LEN - 1));
}

}  // namespace

std::vector<PortsetArg> PortsetArgs(const std::vector<std::string> &names) {
   std::vector<PortsetArg> out;
   for (const auto &n : names) out.push_back({n, 0, 0});
   return out;
}

std::string HexOf(const std::vector<uint8_t> &bytes) {
   static const char digits[] = "0123456789abcdef";
   std::string out;
   for (uint8_t b : bytes) {
      out += digits[b >> 4];
      out += digits[b & 0xf];
   }
   return out;
}

bool BytesOfHex(const std::string &hex, std::vector<uint8_t> *out) {
   auto nibble = [](char c) -> int {
      if (c >= '0' && c <= '9') return c - '0';
      if (c >= 'a' && c <= 'f') return c - 'a' + 10;
      if (c >= 'A' && c <= 'F') return c - 'A' + 10;
      return -1;
   };
   if (hex.size() % 2 != 0) return false;
   std::vector<uint8_t> bytes;
   for (size_t i = 0; i < hex.size(); i += 2) {
      int hi = nibble(hex[i]), lo = nibble(hex[i + 1]);
      if (hi < 0 || lo < 0) return false;
      bytes.push_back(static_cast<uint8_t>(hi << 4 | lo));
   }
   *out = std::move(bytes);
   return true;
}

std::vector<uint8_t> PortsetQuery(const std::vector<PortsetArg> &portsets, bool legacy,
                                  uint32_t maxOutageSec) {
   std::vector<uint8_t> buf(LUS_PORTSET_QUERY_SIZE(portsets.size()));
   auto *q = reinterpret_cast<LusPortsetQuery *>(buf.data());
   q->numPortsets = static_cast<uint32_t>(portsets.size());
   q->legacyEdition = legacy ? 1 : 0;
   q->maxOutageTime = maxOutageSec;
   for (size_t i = 0; i < portsets.size(); i++) {
      LusPortsetEntry entry{};
      CopyName(entry.psName, portsets[i].name);
      entry.op = portsets[i].op;
      entry.fdpMode = portsets[i].fdpMode;
      std::memcpy(buf.data() + sizeof(LusPortsetQuery) + i * sizeof(LusPortsetEntry), &entry,
                  sizeof entry);
   }
   return buf;
}

std::vector<uint8_t> PsUpgradeQuery(const std::string &portset, const std::vector<ModuleArg> &modules) {
   std::vector<uint8_t> buf(LUS_PS_UPGRADE_QUERY_SIZE(modules.size()));
   auto *q = reinterpret_cast<LusPsUpgradeQuery *>(buf.data());
   q->numModules = static_cast<uint32_t>(modules.size());
   CopyName(q->psName, portset);
   for (size_t i = 0; i < modules.size(); i++) {
      LusPsUpgradeModule m{};
      m.isFromBuild = modules[i].isFromBuild ? 1 : 0;
      m.moduleID = modules[i].moduleID;
      std::memcpy(buf.data() + sizeof(LusPsUpgradeQuery) + i * sizeof m, &m, sizeof m);
   }
   return buf;
}

std::vector<uint8_t> UpgradePortQuery(uint32_t arg0, hyk_PortID port, int8_t mode) {
   LusUpgradePortQuery q{};
   q.arg0 = arg0;
   q.portID = port;
   q.mode = mode;
   std::vector<uint8_t> buf(sizeof q);
   std::memcpy(buf.data(), &q, sizeof q);
   return buf;
}

Client::Client(hyksim::UserProcess &process) : process_(process) {
   openStatus_ = process_.Open(LUS_CHARDEV_NAME, &fd_);
}

Client::~Client() {
   if (fd_ >= 0) {
      process_.Close(fd_);
   }
}

hyk_Status Client::RawHeaderAt(uint32_t cmd, hyk_UserVA header) {
   if (!ok()) return openStatus_;
   return process_.Ioctl(fd_, cmd, header);
}

hyk_Status Client::RawAt(uint32_t cmd, hyk_UserVA data, uint32_t length) {
   if (!ok()) return openStatus_;
   if (header_ == 0) {
      header_ = process_.Alloc(sizeof(LusIoctlHeader));
      if (header_ == 0) return HYK_NO_MEMORY;
   }
   LusIoctlHeader hdr{};
   hdr.length = length;
   hdr.data = data;
   process_.Write(header_, &hdr, sizeof hdr);
   return RawHeaderAt(cmd, header_);
}

hyk_UserVA Client::Place(const std::vector<uint8_t> &bytes) {
   if (bytes.size() > scratchLen_) {
      // Grow by doubling so that a mix of sizes settles on one mapping.
      uint64_t len = std::max<uint64_t>(bytes.size(), std::max<uint64_t>(scratchLen_ * 2, 4096));
      hyk_UserVA va = process_.Alloc(len);
      if (va == 0) {
         len = bytes.size();
         va = process_.Alloc(len);
         if (va == 0) return 0;
      }
      scratch_ = va;
      scratchLen_ = len;
   }
   hyk_UserVA at = scratch_ + scratchLen_ - bytes.size();
   process_.Write(at, bytes.data(), bytes.size());
   return at;
}

hyk_Status Client::Issue(uint32_t cmd, const std::vector<uint8_t> &payload, uint32_t length) {
   if (!ok()) return openStatus_;
   hyk_UserVA dataVA = 0;
   if (!payload.empty()) {
      dataVA = Place(payload);
      if (dataVA == 0) return HYK_NO_MEMORY;
      lastPayload_ = dataVA;
   }
   return RawAt(cmd, dataVA, length);
}

hyk_Status Client::Raw(uint32_t cmd, const std::vector<uint8_t> &payload, uint32_t length) {
   return Issue(cmd, payload, length);
}

hyk_Status Client::Register(uint32_t regType, const std::vector<PortsetArg> &portsets, bool legacy) {
   if (regType < 1 || regType > 4) return HYK_BAD_PARAM;
   return Raw(LUS_IOCTL_REG_FROM + regType - 1, PortsetQuery(portsets, legacy, 0));
}

hyk_Status Client::PreUnload(const std::vector<PortsetArg> &portsets, bool legacy) {
   return Raw(LUS_IOCTL_PRE_UNLOAD, PortsetQuery(portsets, legacy, 0));
}

hyk_Status Client::Restore(const std::vector<PortsetArg> &portsets, bool legacy) {
   return Raw(LUS_IOCTL_RESTORE, PortsetQuery(portsets, legacy, 0));
}

hyk_Status Client::BlockPorts(const std::vector<PortsetArg> &portsets, uint32_t maxOutageSec) {
   return Raw(LUS_IOCTL_BLOCK_PORTS, PortsetQuery(portsets, false, maxOutageSec));
}

hyk_Status Client::PreDualLoad() { return Raw(LUS_IOCTL_PRE_DUAL_LOAD, {}); }
hyk_Status Client::GlobalConfigSaveRestore() { return Raw(LUS_IOCTL_GLOBAL_CONFIG, {}); }
hyk_Status Client::StateCollectionComplete() { return Raw(LUS_IOCTL_STATE_COLLECTED, {}); }
hyk_Status Client::StateRestoreComplete() { return Raw(LUS_IOCTL_RESTORE_COMPLETE, {}); }

hyk_Status Client::PsUpgrade(const std::string &portset, const std::vector<ModuleArg> &modules) {
   return Raw(LUS_IOCTL_PS_UPGRADE, PsUpgradeQuery(portset, modules));
}

hyk_Status Client::UpgradePort(uint32_t arg0, hyk_PortID port, int8_t mode) {
   return Raw(LUS_IOCTL_UPGRADE_PORT, UpgradePortQuery(arg0, port, mode));
}

hyk_Status Client::FdpOp(const std::string &portset, uint32_t op, uint32_t fdpMode) {
   return Raw(LUS_IOCTL_FDP_OP, PortsetQuery({{portset, op, fdpMode}}, false, 0));
}

hyk_Status Client::RaiseCswitchEvents(const std::vector<PortsetArg> &portsets) {
   return Raw(LUS_IOCTL_CSWITCH_EVENTS, PortsetQuery(portsets, false, 0));
}

}  // namespace lusctl
