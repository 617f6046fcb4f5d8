// lus_test_client.cpp -- see lus_test_client.h.
#include "lus_test_client.h"

#include <cstring>
#include <map>
#include <mutex>

#include "hyksim/host.h"

namespace lustest {

namespace {

std::mutex gMu;
std::map<hyk_ModuleID, TestClient *> gClients;

}  // namespace

TestClient *CurrentTestClient() {
   std::lock_guard<std::mutex> lock(gMu);
   auto it = gClients.find(hyk_ModuleCurrentID());
   return it == gClients.end() ? nullptr : it->second;
}

// Callbacks find their client by the module lus pushed around the call.
struct TestClientCallbacks {
   static TestClient *Enter(Slot slot) {
      TestClient *c = CurrentTestClient();
      if (c != nullptr) {
         {
            std::lock_guard<std::mutex> lock(c->mu_);
            c->calls[slot]++;
         }
         if (c->config_.onCall) {
            c->config_.onCall(slot);
         }
      }
      return c;
   }
   static uint32_t SizeFor(const TestClient *c, uint32_t portID) {
      return c->config_.sizeForPort ? c->config_.sizeForPort(portID) : c->config_.stateSize;
   }
   static hyk_Status Result(TestClient *c, Slot slot) {
      return c == nullptr ? static_cast<hyk_Status>(HYK_FAILURE) : c->config_.result[slot];
   }
   static hyk_Status Prefetch(void *, uint32_t, uint64_t *) {
      TestClient *c = Enter(kPrefetch);
      return Result(c, kPrefetch);
   }
   static hyk_Status GetSize(void *, uint32_t portID, uint64_t *len, uint64_t *) {
      TestClient *c = Enter(kGetSize);
      if (c != nullptr && len != nullptr) {
         *len = SizeFor(c, portID);
      }
      return Result(c, kGetSize);
   }
   static hyk_Status GetRuntimeState(void *, uint32_t portID, void *buf, uint32_t length,
                                     uint32_t *stateLen, uint64_t *) {
      TestClient *c = Enter(kGetRuntimeState);
      if (c == nullptr) {
         return HYK_FAILURE;
      }
      uint32_t n = std::min(length, c->config_.bytesSaved.value_or(SizeFor(c, portID)));
      std::vector<uint8_t> bytes = c->PatternFor(portID, n);
      if (buf != nullptr && n != 0) {
         memcpy(buf, bytes.data(), n);
      }
      if (stateLen != nullptr) {
         *stateLen = n + c->config_.claimExtra;
      }
      std::lock_guard<std::mutex> lock(c->mu_);
      c->saved[portID] = std::move(bytes);
      return c->config_.result[kGetRuntimeState];
   }
   static hyk_Status RuntimeRestore(void *record, uint32_t portID, void *buf, uint32_t length,
                                    uint32_t) {
      TestClient *c = Enter(kRuntimeRestore);
      if (c == nullptr) {
         return HYK_FAILURE;
      }
      const uint8_t *p = static_cast<const uint8_t *>(buf);
      std::lock_guard<std::mutex> lock(c->mu_);
      c->restored[portID] = p == nullptr ? std::vector<uint8_t>() : std::vector<uint8_t>(p, p + length);
      c->restoreRecords[portID] = record;
      c->restoreOrder.push_back(portID);
      return c->config_.result[kRuntimeRestore];
   }
   static hyk_Status StateCollectionComplete(ClientEntry *, uint32_t, void *, uint64_t *) {
      TestClient *c = Enter(kStateCollectionComplete);
      return Result(c, kStateCollectionComplete);
   }
   static hyk_Status PreDualLoad(ClientEntry *) {
      TestClient *c = Enter(kPreDualLoad);
      return Result(c, kPreDualLoad);
   }
   // Hands over the client's own bytes (empty: nothing) through buf/len.
   static void HandOver(std::vector<uint8_t> &bytes, void **buf, uint32_t *len) {
      if (buf != nullptr) {
         *buf = bytes.empty() ? nullptr : bytes.data();
      }
      if (len != nullptr) {
         *len = static_cast<uint32_t>(bytes.size());
      }
   }
   static std::vector<uint8_t> Bytes(const void *buf, uint32_t len) {
      const uint8_t *p = static_cast<const uint8_t *>(buf);
      return p == nullptr ? std::vector<uint8_t>() : std::vector<uint8_t>(p, p + len);
   }
   static hyk_Status GlobalConfigSave(ClientEntry *, void **buf, uint32_t *len, uint64_t *) {
      TestClient *c = Enter(kGlobalConfigSave);
      if (c == nullptr) {
         return HYK_FAILURE;
      }
      HandOver(c->config_.globalConfig, buf, len);
      return Result(c, kGlobalConfigSave);
   }
   static hyk_Status GlobalConfigRestore(ClientEntry *, void *buf, uint32_t len) {
      TestClient *c = Enter(kGlobalConfigRestore);
      if (c != nullptr) {
         std::lock_guard<std::mutex> lock(c->mu_);
         c->globalRestored.push_back(Bytes(buf, len));
      }
      return Result(c, kGlobalConfigRestore);
   }
   static hyk_Status GlobalComplete(ClientEntry *, uint32_t result, uint64_t *) {
      TestClient *c = Enter(kGlobalComplete);
      if (c != nullptr) {
         std::lock_guard<std::mutex> lock(c->mu_);
         c->globalCompleteResults.push_back(result);
      }
      return Result(c, kGlobalComplete);
   }
   static hyk_Status PsRuntimeSave(ClientEntry *, hyk_Portset *, void **buf, uint32_t *len,
                                   uint64_t *) {
      TestClient *c = Enter(kPsRuntimeSave);
      if (c == nullptr) {
         return HYK_FAILURE;
      }
      HandOver(c->config_.psState, buf, len);
      return Result(c, kPsRuntimeSave);
   }
   static hyk_Status PsRuntimeRestore(ClientEntry *, hyk_Portset *, void *buf, uint32_t len) {
      TestClient *c = Enter(kPsRuntimeRestore);
      if (c != nullptr) {
         std::lock_guard<std::mutex> lock(c->mu_);
         c->psRestored.push_back(Bytes(buf, len));
      }
      return Result(c, kPsRuntimeRestore);
   }
   static hyk_Status PsRuntimeComplete(ClientEntry *, hyk_Portset *ps, uint32_t result, uint64_t *) {
      TestClient *c = Enter(kPsRuntimeComplete);
      if (c != nullptr) {
         std::lock_guard<std::mutex> lock(c->mu_);
         c->psCompleteResults.push_back(result);
         c->psCompletePortsets.push_back(ps);
      }
      return Result(c, kPsRuntimeComplete);
   }

   static ClientInfo MakeInfo(const TestClientConfig &cfg) {
      ClientInfo info{};
      const auto &s = cfg.slots;
      info.ops.prefetch = s[kPrefetch] ? Prefetch : nullptr;
      info.ops.getSize = s[kGetSize] ? GetSize : nullptr;
      info.ops.getRuntimeState = s[kGetRuntimeState] ? GetRuntimeState : nullptr;
      info.ops.runtimeRestore = s[kRuntimeRestore] ? RuntimeRestore : nullptr;
      info.ops.stateCollectionComplete =
         s[kStateCollectionComplete] ? StateCollectionComplete : nullptr;
      info.ops.preDualLoadCB = s[kPreDualLoad] ? PreDualLoad : nullptr;
      info.ops.globalConfigSave = s[kGlobalConfigSave] ? GlobalConfigSave : nullptr;
      info.ops.globalConfigRestore = s[kGlobalConfigRestore] ? GlobalConfigRestore : nullptr;
      info.ops.globalComplete = s[kGlobalComplete] ? GlobalComplete : nullptr;
      info.ops.psRuntimeSave = s[kPsRuntimeSave] ? PsRuntimeSave : nullptr;
      info.ops.psRuntimeRestore = s[kPsRuntimeRestore] ? PsRuntimeRestore : nullptr;
      info.ops.psRuntimeComplete = s[kPsRuntimeComplete] ? PsRuntimeComplete : nullptr;
      info.upgradePhase = cfg.upgradePhase;
      return info;
   }
};

std::vector<uint8_t> TestClient::PatternFor(uint32_t portID, uint32_t len) const {
   uint32_t seed = 0;
   for (char ch : config_.clientName) {
      seed = seed * 131 + static_cast<uint8_t>(ch);
   }
   std::vector<uint8_t> out(len);
   for (uint32_t i = 0; i < len; i++) {
      out[i] = static_cast<uint8_t>(seed + portID * 37 + i * 7 + (i >> 8));
   }
   return out;
}

uint32_t TestClient::Calls(Slot slot) const {
   std::lock_guard<std::mutex> lock(mu_);
   return calls[slot];
}

size_t TestClient::RestoredPorts() const {
   std::lock_guard<std::mutex> lock(mu_);
   return restored.size();
}

TestClient::TestClient(TestClientConfig config) : config_(std::move(config)) {
   if (config_.clientName.empty()) {
      config_.clientName = config_.moduleName;
   }
}

TestClient::~TestClient() {
   if (loaded_) {
      Unload();
   }
   std::lock_guard<std::mutex> lock(gMu);
   for (auto it = gClients.begin(); it != gClients.end();) {
      it = it->second == this ? gClients.erase(it) : std::next(it);
   }
}

hyk_Status TestClient::Load() {
   hyksim::InProcessModule m;
   m.name = config_.moduleName;
   m.init = [this]() -> int {
      id_ = hyk_ModuleCurrentID();
      {
         std::lock_guard<std::mutex> lock(gMu);
         gClients[id_] = this;
      }
      const char *event = config_.legacyEdition ? LUS_CLIENT_EVENT_LEGACY : LUS_CLIENT_EVENT;
      return hyk_NetEventPortsetEventSubscribe(0, event, &TestClient::OnEvent, this, &sub_) ==
                   HYK_OK
                ? 0
                : -1;
   };
   m.cleanup = [this]() {
      if (sub_ != 0) {
         hyk_NetEventPortsetEventUnsubscribe(sub_);
         sub_ = 0;
      }
   };
   hyk_ModuleID id = HYK_INVALID_MODULE_ID;
   hyk_Status status = hyksim::LoadInProcessModule(m, &id);
   if (status == HYK_OK) {
      id_ = id;
      loaded_ = true;
   }
   return status;
}

hyk_Status TestClient::Unload() {
   hyk_Status status = hyksim::UnloadModule(id_);
   if (status == HYK_OK) {
      loaded_ = false;
   }
   return status;
}

hyk_Status TestClient::OnEvent(hyk_Portset *, const char *, void *eventData, uint32_t dataLen,
                               void *cbData) {
   TestClient *self = static_cast<TestClient *>(cbData);
   if (eventData == nullptr || dataLen < sizeof(LUSEventOps)) {
      return HYK_BAD_PARAM;
   }
   LUSEventOps *ops = static_cast<LUSEventOps *>(eventData);
   self->lastEvent = *ops;
   hyk_Status status = HYK_OK;
   if (ops->unregister == 0) {
      self->regEvents_++;
      if (ops->buildNumber == self->config_.buildNumber && self->handle_ == nullptr) {
         ClientInfo info = TestClientCallbacks::MakeInfo(self->config_);
         self->nameBuf_ = self->config_.clientName;
         ClientEntry *handle = nullptr;
         status = ops->registerFn.reg(self->id_, self->nameBuf_.data(), &info, &handle);
         self->registerStatuses.push_back(status);
         if (status == HYK_OK) {
            self->handle_ = handle;
         }
      }
   } else {
      self->unregEvents_++;
      if (self->handle_ != nullptr) {
         status = ops->registerFn.unreg(self->handle_);
         self->unregisterStatuses.push_back(status);
         self->handle_ = nullptr;
      }
   }
   return self->config_.propagateStatus ? status : static_cast<hyk_Status>(HYK_OK);
}

}  // namespace lustest
