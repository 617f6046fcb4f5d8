// Tests of the simulated host's network events and port events: the name
// registry, subscriptions, synchronous delivery with the subscriber's module
// pushed, re-entrant handlers, concurrent port events, unload clean-up and
// fault injection.
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <thread>

#include "fabric_test_support.h"

using namespace fabrictest;

namespace {

class NetEventTest : public FabricTest {};

// What one handler call saw.
struct Seen {
   hyk_ModuleID current;
   std::string tag;
   hyk_Portset *ps;
   void *data;
   uint32_t len;
   std::string portset;
};

struct Recorder {
   std::mutex mu;
   std::vector<Seen> calls;
   hyk_Status answer = HYK_OK;
};

struct Tagged {
   Recorder *rec;
   std::string tag;
   hyk_Status answer = HYK_OK;
};

hyk_Status RecordingHandler(hyk_Portset *ps, const char *, void *data, uint32_t len, void *cbData) {
   auto *t = static_cast<Tagged *>(cbData);
   Seen s{hyk_ModuleCurrentID(), t->tag, ps, data, len, ps ? hyk_PortsetName(ps) : ""};
   std::lock_guard<std::mutex> lk(t->rec->mu);
   t->rec->calls.push_back(s);
   return t->answer;
}

hyk_NetEventHandle SubscribeAs(hyk_ModuleID id, const char *name, Tagged *t) {
   hyk_NetEventHandle h = 0;
   EXPECT_EQ(AsModule(id, [&] { return hyk_NetEventPortsetEventSubscribe(0, name, RecordingHandler, t, &h); }),
             HYK_OK);
   EXPECT_NE(h, 0u);
   return h;
}

TEST_F(NetEventTest, RegisterRefusesDuplicateAndUnregisterRefusesUnknown) {
   EXPECT_EQ(hyk_NetEventRegister("com.example.ev"), HYK_OK);
   EXPECT_EQ(hyk_NetEventRegister("com.example.ev"), HYK_EXISTS);
   EXPECT_EQ(hyksim::RegisteredEvents(), std::vector<std::string>{"com.example.ev"});
   EXPECT_EQ(hyk_NetEventUnregister("com.example.ev"), HYK_OK);
   EXPECT_EQ(hyk_NetEventUnregister("com.example.ev"), HYK_NOT_FOUND);
   EXPECT_TRUE(hyksim::RegisteredEvents().empty());
}

TEST_F(NetEventTest, RegisterChecksTheName) {
   EXPECT_EQ(hyk_NetEventRegister(nullptr), HYK_BAD_PARAM);
   EXPECT_EQ(hyk_NetEventRegister(""), HYK_BAD_PARAM);
   std::string longest(HYK_NETEVENT_NAME_MAX - 1, 'e');
   EXPECT_EQ(hyk_NetEventRegister(longest.c_str()), HYK_OK);
   std::string tooLong(HYK_NETEVENT_NAME_MAX, 'e');
   EXPECT_EQ(hyk_NetEventRegister(tooLong.c_str()), HYK_NAME_TOO_LONG);
}

TEST_F(NetEventTest, PostDeliversToEachSubscriberWithItsModuleIdPushed) {
   hyk_ModuleID a = LoadModule("mod_a");
   hyk_ModuleID b = LoadModule("mod_b");
   Recorder rec;
   Tagged ta{&rec, "a"}, tb{&rec, "b"}, ta2{&rec, "a2"};
   SubscribeAs(b, "ev", &tb);
   SubscribeAs(a, "ev", &ta);
   SubscribeAs(a, "ev", &ta2);
   Tagged other{&rec, "other"};
   SubscribeAs(a, "ev.other", &other);

   uint32_t payload = 42;
   EXPECT_EQ(hyk_NetEventPost(0, "ev", &payload, sizeof payload), HYK_OK);

   ASSERT_EQ(rec.calls.size(), 3u);
   EXPECT_EQ(rec.calls[0].tag, "b");   // subscription order
   EXPECT_EQ(rec.calls[0].current, b);
   EXPECT_EQ(rec.calls[1].tag, "a");
   EXPECT_EQ(rec.calls[1].current, a);
   EXPECT_EQ(rec.calls[2].tag, "a2");
   for (const Seen &s : rec.calls) {
      EXPECT_EQ(s.ps, nullptr);        // a global post carries no portset
      EXPECT_EQ(s.data, &payload);     // handed over as it stands
      EXPECT_EQ(s.len, sizeof payload);
   }
   // Nothing stays pushed after the delivery.
   EXPECT_EQ(hyk_ModuleCurrentID(), HYK_INVALID_MODULE_ID);
}

TEST_F(NetEventTest, PostWithoutSubscribersSucceeds) {
   EXPECT_EQ(hyk_NetEventPost(0, "nobody.listens", nullptr, 0), HYK_OK);
}

TEST_F(NetEventTest, PostReturnsTheFirstFailingStatusAfterCallingEverySubscriber) {
   hyk_ModuleID a = LoadModule("mod_a");
   Recorder rec;
   Tagged ok1{&rec, "ok1"}, bad1{&rec, "bad1", HYK_NO_MEMORY}, bad2{&rec, "bad2", HYK_BUSY}, ok2{&rec, "ok2"};
   SubscribeAs(a, "ev", &ok1);
   SubscribeAs(a, "ev", &bad1);
   SubscribeAs(a, "ev", &bad2);
   SubscribeAs(a, "ev", &ok2);
   EXPECT_EQ(hyk_NetEventPost(0, "ev", nullptr, 0), HYK_NO_MEMORY);
   EXPECT_EQ(rec.calls.size(), 4u);
}

TEST_F(NetEventTest, PostChecksItsArguments) {
   uint32_t v = 0;
   EXPECT_EQ(hyk_NetEventPost(1, "ev", &v, sizeof v), HYK_BAD_PARAM);
   EXPECT_EQ(hyk_NetEventPost(0, nullptr, &v, sizeof v), HYK_BAD_PARAM);
   EXPECT_EQ(hyk_NetEventPost(0, "ev", nullptr, 4), HYK_BAD_PARAM);
}

TEST_F(NetEventTest, PortsetPostCarriesThePortsetToSubscribersOfTheName) {
   hyk_ModuleID a = LoadModule("mod_a");
   MakePortset("ps0", 1);
   Recorder rec;
   Tagged t{&rec, "a"};
   SubscribeAs(a, "sw.activate", &t);
   hyk_Portset *ps = nullptr;
   ASSERT_EQ(hyk_PortsetAcquireByName("ps0", HYK_PORTSET_ACCESS_EXCL, &ps), HYK_OK);
   EXPECT_EQ(hyk_NetEventPortsetEventPost(0, "sw.activate", ps, nullptr, 0), HYK_OK);
   hyk_PortsetRelease(&ps);

   ASSERT_EQ(rec.calls.size(), 1u);
   EXPECT_NE(rec.calls[0].ps, nullptr);
   EXPECT_EQ(rec.calls[0].portset, "ps0");
   EXPECT_EQ(rec.calls[0].current, a);
   EXPECT_EQ(hyksim::FindPortset("ps0")->events, std::vector<std::string>{"sw.activate"});
}

TEST_F(NetEventTest, PortsetPostRefusesAPortsetThatIsNotHeld) {
   MakePortset("ps0", 1);
   hyk_Portset *ps = nullptr;
   ASSERT_EQ(hyk_PortsetAcquireByName("ps0", HYK_PORTSET_ACCESS_EXCL, &ps), HYK_OK);
   hyk_Portset *stale = ps;
   hyk_PortsetRelease(&ps);
   EXPECT_EQ(hyk_NetEventPortsetEventPost(0, "ev", stale, nullptr, 0), HYK_BAD_PARAM);
   EXPECT_EQ(hyk_NetEventPortsetEventPost(0, "ev", nullptr, nullptr, 0), HYK_BAD_PARAM);
   EXPECT_TRUE(hyksim::FindPortset("ps0")->events.empty());
}

hyk_Status ScribblingHandler(hyk_Portset *ps, const char *, void *data, uint32_t len, void *cbData) {
   auto *seen = static_cast<std::string *>(cbData);
   *seen = std::string(hyk_PortsetName(ps)) + ":" + std::to_string(*static_cast<uint32_t *>(data));
   std::memset(data, 0xff, len);   // the subscriber owns what it was handed
   return HYK_OK;
}

TEST_F(NetEventTest, HostPortsetPostHandsACopyAndAPortsetValidForTheDelivery) {
   hyk_ModuleID a = LoadModule("mod_a");
   auto ports = MakePortset("ps0", 1);
   std::string seen;
   hyk_NetEventHandle h = 0;
   ASSERT_EQ(AsModule(a, [&] {
                return hyk_NetEventPortsetEventSubscribe(0, "port.unblock", ScribblingHandler, &seen, &h);
             }),
             HYK_OK);
   uint32_t port = ports[0];
   EXPECT_EQ(hyksim::PostPortsetEvent("ps0", "port.unblock", &port, sizeof port), HYK_OK);
   EXPECT_EQ(seen, "ps0:" + std::to_string(ports[0]));
   EXPECT_EQ(port, ports[0]);   // the caller's payload is untouched
   EXPECT_EQ(hyksim::FindPortset("ps0")->events, std::vector<std::string>{"port.unblock"});
   EXPECT_EQ(hyksim::FindPortset("ps0")->acquireCount, 0u);   // the post held nothing
   EXPECT_EQ(hyksim::PostPortsetEvent("nope", "port.unblock", &port, sizeof port), HYK_NOT_FOUND);
}

TEST_F(NetEventTest, HostPortsetPostDoesNotWaitForAnExclusiveHolder) {
   MakePortset("ps0", 1);
   hyk_Portset *ps = nullptr;
   ASSERT_EQ(hyk_PortsetAcquireByName("ps0", HYK_PORTSET_ACCESS_EXCL, &ps), HYK_OK);
   std::atomic<bool> posted{false};
   std::thread poster([&] {
      EXPECT_EQ(hyksim::PostPortsetEvent("ps0", "ev", nullptr, 0), HYK_OK);
      posted = true;
   });
   poster.join();
   EXPECT_TRUE(posted);
   hyk_PortsetRelease(&ps);
}

TEST_F(NetEventTest, PortsetSubscriptionAlsoReceivesGlobalPosts) {
   hyk_ModuleID a = LoadModule("mod_a");
   Recorder rec;
   Tagged t{&rec, "a"};
   SubscribeAs(a, "ev", &t);
   EXPECT_EQ(hyksim::PostGlobalEvent("ev", nullptr, 0), HYK_OK);
   ASSERT_EQ(rec.calls.size(), 1u);
   EXPECT_EQ(rec.calls[0].ps, nullptr);
}

TEST_F(NetEventTest, UnsubscribedHandlerIsNotCalledAgain) {
   hyk_ModuleID a = LoadModule("mod_a");
   Recorder rec;
   Tagged t{&rec, "a"};
   hyk_NetEventHandle h = SubscribeAs(a, "ev", &t);
   EXPECT_EQ(hyk_NetEventPortsetEventUnsubscribe(h), HYK_OK);
   EXPECT_EQ(hyk_NetEventPost(0, "ev", nullptr, 0), HYK_OK);
   EXPECT_TRUE(rec.calls.empty());
   EXPECT_EQ(hyk_NetEventPortsetEventUnsubscribe(h), HYK_INVALID_HANDLE);
   EXPECT_EQ(hyk_NetEventPortsetEventUnsubscribe(0), HYK_INVALID_HANDLE);
   EXPECT_TRUE(hyksim::Subscriptions().empty());
}

hyk_Status PortHandler(hyk_PortID port, const char *event, void *cbData);

// The subscribers of a name as they stand at each post, whatever was posted
// before: a subscription, an unsubscription and an unload in between each
// change who is called next, for network and port events alike.
TEST_F(NetEventTest, EachPostReachesTheSubscribersOfThatMoment) {
   hyk_ModuleID a = LoadModule("mod_a");
   hyk_ModuleID b = LoadModule("mod_b");
   auto ports = MakePortset("ps0", 1);
   Recorder rec;
   Tagged ta{&rec, "a"}, tb{&rec, "b"}, tc{&rec, "c"};
   auto tags = [&] {
      std::vector<std::string> out;
      for (const Seen &s : rec.calls) out.push_back(s.tag);
      rec.calls.clear();
      return out;
   };
   const char *name = "com.example.a.name.longer.than.sso";
   hyk_NetEventHandle ha = SubscribeAs(a, name, &ta);
   EXPECT_EQ(hyk_NetEventPost(0, name, nullptr, 0), HYK_OK);
   EXPECT_EQ(tags(), std::vector<std::string>{"a"});
   SubscribeAs(b, name, &tb);
   EXPECT_EQ(hyk_NetEventPost(0, name, nullptr, 0), HYK_OK);
   EXPECT_EQ(tags(), (std::vector<std::string>{"a", "b"}));
   EXPECT_EQ(hyk_NetEventPortsetEventUnsubscribe(ha), HYK_OK);
   EXPECT_EQ(hyk_NetEventPost(0, name, nullptr, 0), HYK_OK);
   EXPECT_EQ(tags(), std::vector<std::string>{"b"});
   ASSERT_EQ(hyksim::UnloadModule("mod_b"), HYK_OK);
   EXPECT_EQ(hyk_NetEventPost(0, name, nullptr, 0), HYK_OK);
   EXPECT_TRUE(tags().empty());
   SubscribeAs(a, name, &tc);
   EXPECT_EQ(hyk_NetEventPost(0, name, nullptr, 0), HYK_OK);
   EXPECT_EQ(tags(), std::vector<std::string>{"c"});

   Recorder portRec;
   EXPECT_EQ(hyksim::EnablePort(ports[0]), HYK_OK);
   hyk_NetEventHandle hp = 0;
   ASSERT_EQ(AsModule(a, [&] {
                return hyk_NetEventPortEventSubscribe(0, HYK_PORT_EVENT_STATE_ENABLE, PortHandler, &portRec, &hp);
             }),
             HYK_OK);
   EXPECT_EQ(hyksim::EnablePort(ports[0]), HYK_OK);
   EXPECT_EQ(portRec.calls.size(), 1u);
   EXPECT_EQ(hyk_NetEventPortEventUnsubscribe(hp), HYK_OK);
   EXPECT_EQ(hyksim::EnablePort(ports[0]), HYK_OK);
   EXPECT_EQ(portRec.calls.size(), 1u);
}

// A portset's record of its events keeps each post's name, in order, apart
// from another portset's.
TEST_F(NetEventTest, EachPortsetRecordsTheNamesPostedOnItInOrder) {
   MakePortset("ps0", 1);
   MakePortset("ps1", 1);
   const std::string first = "com.example.first.event.name", second = "ev2";
   for (const auto &[portset, name] : std::vector<std::pair<std::string, std::string>>{
           {"ps0", first}, {"ps1", second}, {"ps0", second}, {"ps0", first}, {"ps1", first}}) {
      ASSERT_EQ(hyksim::PostPortsetEvent(portset, name, nullptr, 0), HYK_OK);
   }
   EXPECT_EQ(hyksim::FindPortset("ps0")->events, (std::vector<std::string>{first, second, first}));
   EXPECT_EQ(hyksim::FindPortset("ps1")->events, (std::vector<std::string>{second, first}));
}

TEST_F(NetEventTest, UnsubscribeRefusesAHandleOfTheOtherKind) {
   hyk_NetEventHandle net = 0, port = 0;
   Recorder rec;
   Tagged t{&rec, "t"};
   ASSERT_EQ(hyk_NetEventPortsetEventSubscribe(0, "ev", RecordingHandler, &t, &net), HYK_OK);
   ASSERT_EQ(hyk_NetEventPortEventSubscribe(0, HYK_PORT_EVENT_STATE_ENABLE, PortHandler, &rec, &port), HYK_OK);
   EXPECT_EQ(hyk_NetEventPortEventUnsubscribe(net), HYK_INVALID_HANDLE);
   EXPECT_EQ(hyk_NetEventPortsetEventUnsubscribe(port), HYK_INVALID_HANDLE);
   EXPECT_EQ(hyk_NetEventPortEventUnsubscribe(port), HYK_OK);
   EXPECT_EQ(hyk_NetEventPortsetEventUnsubscribe(net), HYK_OK);
}

TEST_F(NetEventTest, SubscribeChecksItsArguments) {
   hyk_NetEventHandle h = 0;
   Recorder rec;
   Tagged t{&rec, "t"};
   EXPECT_EQ(hyk_NetEventPortsetEventSubscribe(1, "ev", RecordingHandler, &t, &h), HYK_BAD_PARAM);
   EXPECT_EQ(hyk_NetEventPortsetEventSubscribe(0, "ev", nullptr, &t, &h), HYK_BAD_PARAM);
   EXPECT_EQ(hyk_NetEventPortsetEventSubscribe(0, "ev", RecordingHandler, &t, nullptr), HYK_BAD_PARAM);
   EXPECT_EQ(hyk_NetEventPortsetEventSubscribe(0, nullptr, RecordingHandler, &t, &h), HYK_BAD_PARAM);
   std::string tooLong(HYK_NETEVENT_NAME_MAX, 'x');
   EXPECT_EQ(hyk_NetEventPortsetEventSubscribe(0, tooLong.c_str(), RecordingHandler, &t, &h),
             HYK_NAME_TOO_LONG);
   EXPECT_EQ(h, 0u);
   EXPECT_TRUE(hyksim::Subscriptions().empty());
}

// A handler that, inside its own delivery, subscribes another handler,
// posts a nested event and unsubscribes itself.
struct Reentrant {
   hyk_NetEventHandle self = 0;
   hyk_NetEventHandle added = 0;
   Recorder rec;
   Tagged nested{&rec, "nested"};
   int calls = 0;
};

hyk_Status ReentrantHandler(hyk_Portset *, const char *, void *, uint32_t, void *cbData) {
   auto *r = static_cast<Reentrant *>(cbData);
   r->calls++;
   EXPECT_EQ(hyk_NetEventPortsetEventSubscribe(0, "ev.nested", RecordingHandler, &r->nested, &r->added), HYK_OK);
   EXPECT_EQ(hyk_NetEventPost(0, "ev.nested", nullptr, 0), HYK_OK);
   EXPECT_EQ(hyk_NetEventPortsetEventUnsubscribe(r->self), HYK_OK);
   return HYK_OK;
}

TEST_F(NetEventTest, HandlerMaySubscribePostAndUnsubscribeItselfDuringDelivery) {
   hyk_ModuleID a = LoadModule("mod_a");
   Reentrant r;
   ASSERT_EQ(AsModule(a, [&] { return hyk_NetEventPortsetEventSubscribe(0, "ev", ReentrantHandler, &r, &r.self); }),
             HYK_OK);
   EXPECT_EQ(hyk_NetEventPost(0, "ev", nullptr, 0), HYK_OK);
   EXPECT_EQ(hyk_NetEventPost(0, "ev", nullptr, 0), HYK_OK);
   EXPECT_EQ(r.calls, 1);
   ASSERT_EQ(r.rec.calls.size(), 1u);
   // Subscribed inside a's handler: owned by a.
   EXPECT_EQ(r.rec.calls[0].current, a);
   ASSERT_EQ(hyksim::Subscriptions().size(), 1u);
   EXPECT_EQ(hyksim::Subscriptions()[0].module, a);
}

struct LateJoiner {
   Recorder rec;
   Tagged late{&rec, "late"};
   hyk_NetEventHandle handle = 0;
};

hyk_Status SubscribeLateJoiner(hyk_Portset *, const char *, void *, uint32_t, void *cbData) {
   auto *j = static_cast<LateJoiner *>(cbData);
   if (j->handle == 0) {
      EXPECT_EQ(hyk_NetEventPortsetEventSubscribe(0, "ev", RecordingHandler, &j->late, &j->handle), HYK_OK);
   }
   return HYK_OK;
}

TEST_F(NetEventTest, SubscriberAddedDuringADeliveryGetsOnlyLaterPosts) {
   LateJoiner j;
   hyk_NetEventHandle h = 0;
   ASSERT_EQ(hyk_NetEventPortsetEventSubscribe(0, "ev", SubscribeLateJoiner, &j, &h), HYK_OK);
   EXPECT_EQ(hyk_NetEventPost(0, "ev", nullptr, 0), HYK_OK);
   EXPECT_TRUE(j.rec.calls.empty());
   EXPECT_EQ(hyk_NetEventPost(0, "ev", nullptr, 0), HYK_OK);
   EXPECT_EQ(j.rec.calls.size(), 1u);
}

// ---- port events ----

hyk_Status PortHandler(hyk_PortID port, const char *event, void *cbData) {
   auto *rec = static_cast<Recorder *>(cbData);
   std::lock_guard<std::mutex> lk(rec->mu);
   rec->calls.push_back(Seen{hyk_ModuleCurrentID(), event, nullptr, nullptr, port, ""});
   return rec->answer;
}

TEST_F(NetEventTest, PortEventSubscribeToAnEventTheHostDoesNotRaiseIsNotFound) {
   hyk_NetEventHandle h = 0;
   Recorder rec;
   EXPECT_EQ(hyk_NetEventPortEventSubscribe(0, "port.state.disable", PortHandler, &rec, &h), HYK_NOT_FOUND);
   EXPECT_EQ(h, 0u);
   EXPECT_EQ(hyk_NetEventPortEventSubscribe(0, nullptr, PortHandler, &rec, &h), HYK_BAD_PARAM);
   EXPECT_EQ(hyk_NetEventPortEventSubscribe(0, HYK_PORT_EVENT_STATE_ENABLE, nullptr, &rec, &h), HYK_BAD_PARAM);
}

TEST_F(NetEventTest, EnablePortRaisesStateEnableWithTheSubscriberPushed) {
   hyk_ModuleID a = LoadModule("mod_a");
   auto ports = MakePortset("ps0", 2);
   Recorder rec;
   hyk_NetEventHandle h = 0;
   ASSERT_EQ(AsModule(a, [&] {
                return hyk_NetEventPortEventSubscribe(0, HYK_PORT_EVENT_STATE_ENABLE, PortHandler, &rec, &h);
             }),
             HYK_OK);
   ASSERT_EQ(hyksim::DisablePort(ports[1]), HYK_OK);
   EXPECT_FALSE(hyksim::FindPort(ports[1])->desc.enabled);
   EXPECT_EQ(hyksim::EnablePort(ports[1]), HYK_OK);
   EXPECT_TRUE(hyksim::FindPort(ports[1])->desc.enabled);
   ASSERT_EQ(rec.calls.size(), 1u);
   EXPECT_EQ(rec.calls[0].len, ports[1]);   // the port ID
   EXPECT_EQ(rec.calls[0].tag, HYK_PORT_EVENT_STATE_ENABLE);
   EXPECT_EQ(rec.calls[0].current, a);
   // A network post of that name does not reach port-event subscribers.
   EXPECT_EQ(hyk_NetEventPost(0, HYK_PORT_EVENT_STATE_ENABLE, nullptr, 0), HYK_OK);
   EXPECT_EQ(rec.calls.size(), 1u);
   rec.answer = HYK_FAILURE;
   EXPECT_EQ(hyksim::EnablePort(ports[0]), HYK_FAILURE);
   EXPECT_EQ(hyksim::EnablePort(9999), HYK_NOT_FOUND);
   EXPECT_EQ(rec.calls.size(), 2u);
}

// Two deliveries meet inside their handlers: proof that they run at once.
struct Rendezvous {
   std::mutex mu;
   std::condition_variable cv;
   int inside = 0;
   int met = 0;
   std::atomic<int> calls{0};
};

hyk_Status MeetingHandler(hyk_PortID, const char *, void *cbData) {
   auto *r = static_cast<Rendezvous *>(cbData);
   r->calls++;
   std::unique_lock<std::mutex> lk(r->mu);
   r->inside++;
   r->cv.notify_all();
   if (r->cv.wait_for(lk, std::chrono::seconds(10), [&] { return r->inside >= 2; })) {
      r->met++;
   }
   return HYK_OK;
}

TEST_F(NetEventTest, PortEventsForDifferentPortsAreDeliveredConcurrently) {
   hyk_ModuleID a = LoadModule("mod_a");
   auto ports = MakePortset("ps0", 2);
   Rendezvous r;
   hyk_NetEventHandle h = 0;
   ASSERT_EQ(AsModule(a, [&] {
                return hyk_NetEventPortEventSubscribe(0, HYK_PORT_EVENT_STATE_ENABLE, MeetingHandler, &r, &h);
             }),
             HYK_OK);
   std::thread t0([&] { EXPECT_EQ(hyksim::EnablePort(ports[0]), HYK_OK); });
   std::thread t1([&] { EXPECT_EQ(hyksim::EnablePort(ports[1]), HYK_OK); });
   t0.join();
   t1.join();
   EXPECT_EQ(r.calls.load(), 2);
   EXPECT_EQ(r.met, 2);
}

hyk_Status CountingPortHandler(hyk_PortID port, const char *, void *cbData) {
   auto *counts = static_cast<std::vector<std::atomic<int>> *>(cbData);
   (*counts)[port]++;
   return HYK_OK;
}

TEST_F(NetEventTest, ManyConcurrentPortEventsEachReachTheSubscriberOnce) {
   auto ports = MakePortset("ps0", 8);
   std::vector<std::atomic<int>> counts(ports.back() + 1);
   hyk_NetEventHandle h = 0;
   ASSERT_EQ(hyk_NetEventPortEventSubscribe(0, HYK_PORT_EVENT_STATE_ENABLE, CountingPortHandler, &counts, &h),
             HYK_OK);
   std::vector<std::thread> threads;
   for (hyk_PortID p : ports) {
      threads.emplace_back([p] {
         for (int i = 0; i < 50; i++) {
            EXPECT_EQ(hyksim::EnablePort(p), HYK_OK);
         }
      });
   }
   for (auto &t : threads) {
      t.join();
   }
   for (hyk_PortID p : ports) {
      EXPECT_EQ(counts[p].load(), 50) << "port " << p;
   }
}

struct SlowHandler {
   std::atomic<bool> entered{false};
   std::atomic<bool> release{false};
   std::atomic<bool> finished{false};
};

hyk_Status Slow(hyk_Portset *, const char *, void *, uint32_t, void *cbData) {
   auto *s = static_cast<SlowHandler *>(cbData);
   s->entered = true;
   while (!s->release) {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
   }
   s->finished = true;
   return HYK_OK;
}

TEST_F(NetEventTest, UnsubscribeWaitsForADeliveryRunningOnAnotherThread) {
   SlowHandler s;
   hyk_NetEventHandle h = 0;
   ASSERT_EQ(hyk_NetEventPortsetEventSubscribe(0, "ev", Slow, &s, &h), HYK_OK);
   std::thread poster([] { EXPECT_EQ(hyk_NetEventPost(0, "ev", nullptr, 0), HYK_OK); });
   while (!s.entered) {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
   }
   std::thread releaser([&] {
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
      s.release = true;
   });
   EXPECT_EQ(hyk_NetEventPortsetEventUnsubscribe(h), HYK_OK);
   EXPECT_TRUE(s.finished);   // not before the handler returned
   poster.join();
   releaser.join();
}

// ---- module unload and faults ----

TEST_F(NetEventTest, UnloadReportsAndDropsWhatTheModuleLeftBehind) {
   hyk_ModuleID a = LoadModule("leaky");
   hyk_ModuleID b = LoadModule("tidy");
   Recorder rec;
   Tagged ta{&rec, "a"}, tb{&rec, "b"};
   SubscribeAs(a, "ev", &ta);
   SubscribeAs(b, "ev", &tb);
   hyk_NetEventHandle ph = 0;
   ASSERT_EQ(AsModule(a, [&] {
                return hyk_NetEventPortEventSubscribe(0, HYK_PORT_EVENT_STATE_ENABLE, PortHandler, &rec, &ph);
             }),
             HYK_OK);
   ASSERT_EQ(AsModule(a, [] { return hyk_NetEventRegister("leaky.ev"); }), HYK_OK);
   ASSERT_EQ(AsModule(b, [] { return hyk_NetEventRegister("tidy.ev"); }), HYK_OK);

   ASSERT_EQ(hyksim::UnloadModule("leaky"), HYK_OK);

   EXPECT_TRUE(hyksim::LogContains("module leaky left its subscription to network event ev behind"));
   EXPECT_TRUE(hyksim::LogContains("module leaky left its subscription to port event port.state.enable"));
   EXPECT_TRUE(hyksim::LogContains("module leaky left network event leaky.ev registered"));
   ASSERT_EQ(hyksim::Subscriptions().size(), 1u);
   EXPECT_EQ(hyksim::Subscriptions()[0].module, b);
   EXPECT_EQ(hyksim::RegisteredEvents(), std::vector<std::string>{"tidy.ev"});
   EXPECT_EQ(hyk_NetEventPost(0, "ev", nullptr, 0), HYK_OK);
   ASSERT_EQ(rec.calls.size(), 1u);
   EXPECT_EQ(rec.calls[0].tag, "b");
}

TEST_F(NetEventTest, InjectedSubscribeFaultSubscribesNothing) {
   hyksim::FaultSpec f;
   f.op = "hyk_NetEventPortsetEventSubscribe";
   f.status = HYK_NO_MEMORY;
   f.nth = 1;
   hyksim::InjectFault(f);
   Recorder rec;
   Tagged t{&rec, "t"};
   hyk_NetEventHandle h = 0;
   EXPECT_EQ(hyk_NetEventPortsetEventSubscribe(0, "ev", RecordingHandler, &t, &h), HYK_NO_MEMORY);
   EXPECT_TRUE(hyksim::Subscriptions().empty());
   EXPECT_EQ(hyk_NetEventPortsetEventSubscribe(0, "ev", RecordingHandler, &t, &h), HYK_OK);
   EXPECT_EQ(hyksim::Subscriptions().size(), 1u);
   EXPECT_EQ(hyksim::InjectedFaultCount("hyk_NetEventPortsetEventSubscribe"), 1u);
}

TEST_F(NetEventTest, InjectedPostFaultDeliversNothing) {
   Recorder rec;
   Tagged t{&rec, "t"};
   hyk_NetEventHandle h = 0;
   ASSERT_EQ(hyk_NetEventPortsetEventSubscribe(0, "ev", RecordingHandler, &t, &h), HYK_OK);
   hyksim::FaultSpec f;
   f.op = "hyk_NetEventPost";
   f.status = HYK_FAILURE;
   f.every = true;
   hyksim::InjectFault(f);
   EXPECT_EQ(hyk_NetEventPost(0, "ev", nullptr, 0), HYK_FAILURE);
   EXPECT_TRUE(rec.calls.empty());
   hyksim::ClearFaults();
   EXPECT_EQ(hyk_NetEventPost(0, "ev", nullptr, 0), HYK_OK);
   EXPECT_EQ(rec.calls.size(), 1u);
}

TEST_F(NetEventTest, EveryOperationHasItsFaultPoint) {
   const char *ops[] = {"hyk_NetEventRegister", "hyk_NetEventUnregister",
                        "hyk_NetEventPortEventSubscribe", "hyk_NetEventPortsetEventUnsubscribe",
                        "hyk_NetEventPortEventUnsubscribe", "hyk_NetEventPortsetEventPost"};
   for (const char *op : ops) {
      hyksim::FaultSpec f;
      f.op = op;
      f.status = HYK_TIMEOUT;
      f.every = true;
      hyksim::InjectFault(f);
   }
   Recorder rec;
   hyk_NetEventHandle h = 0;
   EXPECT_EQ(hyk_NetEventRegister("ev"), HYK_TIMEOUT);
   EXPECT_EQ(hyk_NetEventUnregister("ev"), HYK_TIMEOUT);
   EXPECT_EQ(hyk_NetEventPortEventSubscribe(0, HYK_PORT_EVENT_STATE_ENABLE, PortHandler, &rec, &h), HYK_TIMEOUT);
   EXPECT_EQ(hyk_NetEventPortsetEventUnsubscribe(1), HYK_TIMEOUT);
   EXPECT_EQ(hyk_NetEventPortEventUnsubscribe(1), HYK_TIMEOUT);
   EXPECT_EQ(hyk_NetEventPortsetEventPost(0, "ev", nullptr, nullptr, 0), HYK_TIMEOUT);
   EXPECT_TRUE(hyksim::RegisteredEvents().empty());
   EXPECT_TRUE(hyksim::Subscriptions().empty());
}

}  // namespace
