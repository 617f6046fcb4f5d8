// lus_test_client.h -- an in-process datapath client module for tests of lus.
//
// A TestClient is loaded as its own host module.  At init it subscribes to
// the registration event of its edition and then answers it as the sample
// clients do: on a registration event it registers when the event's build
// number is its own and it holds no handle; on an unregistration event it
// unregisters when it holds a handle, and drops it.  Which callback slots it
// offers, the sizes it reports and the statuses its callbacks return are set
// by the test, so a test can make any callback fail.
#pragma once

#include <array>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "hyk/hyk.h"
#include "lus.h"

namespace lustest {

enum Slot : int {
   kPrefetch = 0,
   kGetSize,
   kGetRuntimeState,
   kRuntimeRestore,
   kStateCollectionComplete,
   kPreDualLoad,
   kGlobalConfigSave,
   kGlobalConfigRestore,
   kGlobalComplete,
   kPsRuntimeSave,
   kPsRuntimeRestore,
   kPsRuntimeComplete,
   kNumSlots
};

struct TestClientConfig {
   std::string moduleName;        // host module name (unique per client)
   std::string clientName;        // name registered with lus; "" = moduleName
   uint32_t buildNumber = 2000;   // registers only on events of this build
   bool legacyEdition = false;    // subscribes to the legacy edition's event
   uint32_t upgradePhase = LUS_PHASE_PORTSET;
   std::array<bool, kNumSlots> slots{true, true, true, true, true, true,
                                     true, true, true, true, true, true};
   // What the event handler returns: the status of the register/unregister
   // call (true) or always success (false).
   bool propagateStatus = true;
   uint32_t stateSize = 64;                 // what getSize reports
   std::array<hyk_Status, kNumSlots> result{};  // status each callback returns
   // Per-port size, when set, instead of stateSize (getSize and the bytes saved).
   std::function<uint32_t(uint32_t portID)> sizeForPort;
   // getRuntimeState: bytes it writes when set (capped to the buffer), instead
   // of its size; and extra bytes it claims beyond what it wrote (an overrun).
   std::optional<uint32_t> bytesSaved;
   uint32_t claimExtra = 0;
   // Portset runtime state and global configuration the client hands over
   // (psRuntimeSave, globalConfigSave): these bytes, 0 bytes when empty.  The
   // buffer stays the client's, as lus expects.
   std::vector<uint8_t> psState;
   std::vector<uint8_t> globalConfig;
   // Called first thing in every callback (with the client's module current):
   // lets a test act at an exact point of a sequence, e.g. inject a fault.
   std::function<void(Slot)> onCall;
};

class TestClient {
  public:
   explicit TestClient(TestClientConfig config);
   ~TestClient();
   TestClient(const TestClient &) = delete;
   TestClient &operator=(const TestClient &) = delete;

   // Loads the client module (subscribes at init).  HYK_OK or the host's status.
   hyk_Status Load();
   // Unloads it; HYK_BUSY while lus holds a use count on it.
   hyk_Status Unload();

   const TestClientConfig &config() const { return config_; }
   TestClientConfig &config() { return config_; }
   hyk_ModuleID id() const { return id_; }
   bool loaded() const { return loaded_; }
   ClientEntry *handle() const { return handle_; }

   // What the client saw of the registration events.
   size_t registrationEvents() const { return regEvents_; }
   size_t unregistrationEvents() const { return unregEvents_; }
   std::vector<hyk_Status> registerStatuses;    // of each register call it made
   std::vector<hyk_Status> unregisterStatuses;  // of each unregister call it made
   std::array<uint32_t, kNumSlots> calls{};      // callback calls per slot
   LUSEventOps lastEvent{};

   // Port state as the client handed it over (getRuntimeState) and got it
   // back (runtimeRestore), by port; and the record each callback was given.
   // Callbacks may run on several threads at once: read these after the
   // threads are joined, or through the accessors.
   std::map<uint32_t, std::vector<uint8_t>> saved;
   std::map<uint32_t, std::vector<uint8_t>> restored;
   std::map<uint32_t, void *> restoreRecords;
   std::vector<uint32_t> restoreOrder;   // ports in the order runtimeRestore saw them
   // Portset and global state as the client got it back, and the results its
   // completion callbacks were told (with the portset handle each one got).
   std::vector<std::vector<uint8_t>> psRestored;
   std::vector<uint32_t> psCompleteResults;
   std::vector<hyk_Portset *> psCompletePortsets;
   std::vector<std::vector<uint8_t>> globalRestored;
   std::vector<uint32_t> globalCompleteResults;
   // The bytes this client writes for a port: differ per client, port and offset.
   std::vector<uint8_t> PatternFor(uint32_t portID, uint32_t len) const;
   uint32_t Calls(Slot slot) const;
   size_t RestoredPorts() const;

  private:
   static hyk_Status OnEvent(hyk_Portset *ps, const char *eventName, void *eventData,
                             uint32_t dataLen, void *cbData);
   friend struct TestClientCallbacks;

   TestClientConfig config_;
   hyk_ModuleID id_ = HYK_INVALID_MODULE_ID;
   bool loaded_ = false;
   hyk_NetEventHandle sub_ = 0;
   ClientEntry *handle_ = nullptr;
   size_t regEvents_ = 0, unregEvents_ = 0;
   std::string nameBuf_;
   mutable std::mutex mu_;   // callbacks' own records (calls, saved, restored)
};

// The client whose module is current on this thread (inside a callback), or null.
TestClient *CurrentTestClient();

}  // namespace lustest
