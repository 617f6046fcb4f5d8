// save_fixture.h -- the fixture of the tests of per-port state save and
// restore: pairs of old-build and new-build test clients, the classic
// sequence up to the restore events, and the save and restore operations of
// the module reached by name.
#pragma once

#include <cstdio>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "lus_fixture.h"

namespace lustest {

using VisitorFn = hyk_Status(hyk_Portset *, hyk_PortID, void *);
using SaveFn = hyk_Status(int8_t);
using RestorePortFn = hyk_Status(uint32_t, uint32_t);
using RestoreV1Fn = hyk_Status(uint32_t);
using GetRestoreStateFn = void(char *, uint32_t);
using EditionRestoreFn = hyk_Status(uint8_t);
using StatusFn = hyk_Status();
using VoidFn = void();
using PortFn = void(uint32_t);
using PerPortSaveFn = void(LusPortInstV1 *);
using PortsetNameFn = hyk_Status(const char *);

struct SizeTotals {
   uint32_t instances;
   uint32_t bytes;
};

inline std::string Hex(uint32_t v) {
   char buf[16];
   snprintf(buf, sizeof(buf), "%x", v);
   return buf;
}

struct ClientPair {
   TestClient *from;
   TestClient *to;
};

class SaveRestoreTest : public LusTest {
  protected:
   // Loads lus as the new build's, with the old build given, at `level`.
   void LoadNew(int level = 3) {
      Load({"fromBuild=1000", "lusLogLevel=" + std::to_string(level)});
   }

   // An old-build and a new-build client of one name; `edit` adjusts both
   // configurations before the per-build fields are set.
   template <typename Edit>
   ClientPair Pair(const std::string &name, Edit edit) {
      TestClientConfig cfg;
      cfg.clientName = name;
      edit(cfg);
      TestClientConfig from = cfg, to = cfg;
      from.moduleName = name + "_old";
      from.buildNumber = kFromBuild;
      to.moduleName = name + "_new";
      to.buildNumber = kToBuild;
      return {AddClient(from), AddClient(to)};
   }
   ClientPair Pair(const std::string &name) {
      return Pair(name, [](TestClientConfig &) {});
   }

   // A row the client table keeps past its count: a client registered with
   // `regType` through lus's registration entry (no enrolment) and, unless
   // `stay`, unregistered again -- its name and callbacks stay in the row.
   // Its callbacks fail the test if lus ever calls them.
   ClientEntry *RowOf(uint32_t regType, const std::string &name, bool stay = false) {
      TestClientConfig cfg;
      cfg.moduleName = name + (stay ? "_stay" : "_gone");
      cfg.clientName = name;
      cfg.buildNumber = 4242;   // answers no registration event of lus
      TestClient *c = AddClient(cfg);
      ClientInfo info = {};
      info.ops.getSize = [](void *, uint32_t, uint64_t *, uint64_t *) -> hyk_Status {
         ADD_FAILURE() << "a row past the count was asked for a size";
         return HYK_FAILURE;
      };
      info.ops.getRuntimeState = [](void *, uint32_t, void *, uint32_t, uint32_t *, uint64_t *) -> hyk_Status {
         ADD_FAILURE() << "a row past the count was asked for its state";
         return HYK_FAILURE;
      };
      info.ops.runtimeRestore = [](void *, uint32_t, void *, uint32_t, uint32_t) -> hyk_Status {
         return HYK_OK;
      };
      info.upgradePhase = LUS_PHASE_PORTSET;
      char nm[LUS_CLIENT_NAME_LEN] = {};
      snprintf(nm, sizeof nm, "%s", name.c_str());
      ClientEntry *h = nullptr;
      Var<uint32_t>("currRegType") = regType;   // as during lus's registration event
      EXPECT_EQ(AsLus([&] {
                   return LusFn<std::remove_pointer_t<LusClientRegisterFn>>("lus_ClientRegister")(c->id(), nm,
                                                                                                   &info, &h);
                }),
                HYK_OK);
      Var<uint32_t>("currRegType") = 0;
      if (!stay) {
         EXPECT_EQ(AsLus([&] { return LusFn<hyk_Status(ClientEntry *)>("lus_ClientUnregister")(h); }), HYK_OK);
      }
      return h;
   }

   // Interface version 0: the new build registers, then the old build, which
   // enrols every vNIC port of the listed portsets.
   void EnrolV0(const std::vector<std::string> &portsets, uint8_t legacy = 0) {
      SetPortsets(portsets);
      ASSERT_EQ(Reg(legacy, LUS_REG_TO), HYK_OK);
      ASSERT_EQ(Reg(legacy, LUS_REG_FROM), HYK_OK);
   }

   // Interface version 1: both builds registered, one portset enrolled.
   void EnrolV1(const std::string &portset) {
      ASSERT_EQ(Reg(0, LUS_REG_FROM_V1), HYK_OK);
      ASSERT_EQ(Reg(0, LUS_REG_TO_V1), HYK_OK);
      ASSERT_EQ(AsLus([&] { return LusFn<PortsetNameFn>("LUS_ClientRegAllPS")(portset.c_str()); }),
                HYK_OK);
   }

   // Blocks the ports as the tool's block command does, and starts the
   // outage clock at the current whole second.
   void BlockPorts(const std::vector<hyk_PortID> &ports) {
      for (hyk_PortID p : ports) {
         ASSERT_EQ(AsLus([&] { return hyk_PortCustomBlock(p, 0x2000, 0); }), HYK_OK);
      }
      Var<uint32_t>("startOutageTime") = static_cast<uint32_t>(hyksim::NowUS() / 1000000);
   }

   // The classic sequence up to the restore events: new build registers,
   // ports blocked, save command, old build unloaded, new build registers
   // again and is matched to the saved records.
   void SaveClassic(const std::vector<std::string> &portsets, const std::vector<hyk_PortID> &ports,
                    const std::vector<ClientPair> &pairs, uint8_t legacy = 0) {
      SetPortsets(portsets);
      ASSERT_EQ(Reg(legacy, LUS_REG_TO), HYK_OK);
      BlockPorts(ports);
      ASSERT_EQ(Save(static_cast<int8_t>(legacy)), HYK_OK);
      for (auto &p : pairs) {
         ASSERT_EQ(p.from->Unload(), HYK_OK);
      }
      ASSERT_EQ(Reg(legacy, LUS_REG_TO), HYK_OK);
   }

   // ---- operations ----------------------------------------------------------
   hyk_Status Visit(const char *fn, hyk_PortID port, void *data = nullptr) {
      return AsLus([&] { return LusFn<VisitorFn>(fn)(nullptr, port, data); });
   }
   hyk_Status Save(int8_t regFlag) {
      return AsLus([&] { return LusFn<SaveFn>("LUS_Save")(regFlag); });
   }
   hyk_Status RestorePort(hyk_PortID port, uint32_t events) {
      return AsLus([&] { return LusFn<RestorePortFn>("lusRestore")(port, events); });
   }
   hyk_Status RestoreV1(hyk_PortID port) {
      return AsLus([&] { return LusFn<RestoreV1Fn>("lusRestoreV1")(port); });
   }
   // The pull restore, called as the client calls it: with its module current.
   void PullRestore(TestClient *client, const std::string &name, hyk_PortID port) {
      std::string buf = name;
      buf.resize(32);
      hyk_ModuleCookie cookie{};
      hyk_ModulePushId(client->id(), nullptr, &cookie);
      LusFn<GetRestoreStateFn>("lusGetRestoreState")(buf.data(), port);
      hyk_ModulePopId();
   }
   hyk_Status PostUnblock(const std::string &ps, hyk_PortID port) {
      uint32_t id = port;
      return hyksim::PostPortsetEvent(ps, "com.corvid.tarn.kcp.port.unblock", &id, sizeof(id));
   }

   // ---- inspection ----------------------------------------------------------
   LusInstance *FindV0(const std::string &uuid, uint32_t vnic, const std::string &name) {
      return AsLus([&] {
         return LusFn<FindV0Fn>("LUS_FindMatchingInstance")(uuid.c_str(), vnic, name.c_str());
      });
   }
   LusPortInstV1 *PortV1(const char *map, hyk_PortID port) {
      return LusFn<LookupV1Fn>("lusLookupPortV1")(Var<LusHashMap *>(map), port);
   }
   LusClientInst *RecordV1(LusPortInstV1 *port, const std::string &name) {
      for (LusListLinks *e = port->clients.next; e != &port->clients; e = e->next) {
         auto *rec = reinterpret_cast<LusClientInst *>(e);
         if (rec->fromClient != nullptr && name == rec->fromClient->clientName) {
            return rec;
         }
      }
      return nullptr;
   }
   bool Blocked(hyk_PortID port) { return (hyksim::FindPort(port)->blockReasons & 0x2000) != 0; }
   uint64_t HeapBytes(const char *heap) { return hyksim::FindHeap(heap)->bytesInUse; }
   uint64_t ClientStateBytes() { return HeapBytes("lus_heap_1") + HeapBytes("lus_heap_2"); }
   size_t PendingTimers() { return hyksim::Counts().pendingTimers; }
};

}  // namespace lustest
