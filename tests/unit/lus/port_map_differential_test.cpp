// The version 0 lookups find a record by walking the one bucket its UUID
// hashes to.  The plain algorithm walks all 16,384 buckets in order;
// it is kept here as the reference, and a randomised run of inserts,
// deletions and lookups over a map whose hash forces many UUIDs into a few
// buckets checks that both return the same record every time.
#include <algorithm>
#include <cstdio>
#include <deque>
#include <random>

#include "lus_fixture.h"

namespace lustest {
namespace {

// Few buckets for many UUIDs: the length and first character, modulo 8.
uint64_t CollidingHash(const void *key, uint32_t keyLen) {
   const char *s = static_cast<const char *>(key);
   uint32_t len = 0;
   while (len < keyLen && s[len] != '\0') len++;
   return len == 0 ? 0 : (len + static_cast<unsigned char>(s[0])) % 8;
}

// The plain lookup: every bucket in order, every record in chain order.
LusInstance *ReferenceScan(LusHashMap *map, const char *uuid, uint32_t vnic, const char *name) {
   LusHashBucket *buckets = TarnHash_Buckets(map);
   for (uint32_t b = 0; b <= map->bucketMask; b++) {
      for (LusListLinks *e = buckets[b].chain.next; e != &buckets[b].chain; e = e->next) {
         auto *rec = reinterpret_cast<LusInstance *>(e);
         if (rec->vnicIndex != vnic || strncmp(rec->vmUUID, uuid, LUS_UUID_LEN) != 0) continue;
         bool named = name == nullptr ||
                      (rec->fromClient != nullptr && strncmp(name, rec->fromClient->clientName, 32) == 0) ||
                      (rec->toClient != nullptr && strncmp(name, rec->toClient->clientName, 32) == 0);
         if (named) return rec;
      }
   }
   return nullptr;
}

class PortMapDifferentialTest : public LusTest {
  protected:
   void Run(uint64_t seed, int operations) {
      std::printf("[ seed ] %llu\n", static_cast<unsigned long long>(seed));
      RecordProperty("seed", std::to_string(seed));
      std::mt19937_64 rng(seed);
      std::vector<uint8_t> storage(TARN_HASH_ALLOC_SIZE + 64);
      auto *map = reinterpret_cast<LusHashMap *>(
         (reinterpret_cast<uintptr_t>(storage.data()) + 63) & ~uintptr_t{63});
      TarnHash_Init(map, 0, LUS_UUID_LEN, offsetof(LusInstance, vmUUID), TARN_HASH_KEY_STRING);
      map->hashFn = CollidingHash;
      Var<LusHashMap *>("lusHashMap") = map;

      std::vector<ClientEntry> clients(4);
      const char *names[4] = {"vswitch", "dfw", "stats", "legacy"};
      for (int i = 0; i < 4; i++) {
         memset(&clients[i], 0, sizeof(ClientEntry));
         strncpy(clients[i].clientName, names[i], 32);
      }
      std::vector<std::string> uuids;
      for (int i = 0; i < 60; i++) uuids.push_back("vm-" + std::to_string(i * 7919 % 1000));
      // Full-length UUIDs that share all but their last characters, and
      // strings that end on either side of an eight-byte boundary: a lookup
      // compares UUIDs a word at a time.
      for (int i = 0; i < 12; i++) {
         char full[40];
         std::snprintf(full, sizeof full, "564d7a2b-1c3e-4f5a-9b8c-0d1e2f3a4b%02x", i * 37 % 256);
         uuids.push_back(full);
      }
      for (size_t n : {7, 8, 9, 15, 16, 17, 131, 132}) {
         uuids.push_back(std::string(n, 'u'));
         uuids.push_back(std::string(n - 1, 'u') + 'v');
      }
      std::deque<LusInstance> records;
      std::vector<LusInstance *> live;
      auto *find = LusFn<FindV0Fn>("LUS_FindMatchingInstance");
      auto *check = LusFn<LusInstance *(const char *, uint32_t)>("LUS_CheckPortInHash");
      size_t lookups = 0, hits = 0;

      for (int op = 0; op < operations; op++) {
         const std::string &uuid = uuids[rng() % uuids.size()];
         const uint32_t vnic = static_cast<uint32_t>(rng() % 3);
         const int kind = static_cast<int>(rng() % 10);
         if (kind < 5 || live.empty()) {
            LusInstance &rec = records.emplace_back();
            memset(&rec, 0, sizeof(rec));
            // Half the records keep bytes after their UUID's end, which no
            // comparison may look at.
            if (rng() % 2 == 0) memset(rec.vmUUID, 'g', LUS_UUID_LEN - 1);
            memcpy(rec.vmUUID, uuid.c_str(), std::min(uuid.size() + 1, size_t(LUS_UUID_LEN - 1)));
            rec.vnicIndex = vnic;
            ClientEntry *c = &clients[rng() % clients.size()];
            // Some records know only their old client, some only the new one, some both.
            const int who = static_cast<int>(rng() % 3);
            rec.fromClient = who != 1 ? c : nullptr;
            rec.toClient = who != 0 ? c : nullptr;
            TarnHash_Insert(map, &rec.link);
            live.push_back(&rec);
         } else if (kind < 8) {
            size_t i = rng() % live.size();
            LusInstance *rec = live[i];
            TarnHash_RemoveFromBucket(map, TarnHash_BucketOfKey(map, rec->vmUUID), &rec->link);
            live[i] = live.back();
            live.pop_back();
         } else {
            const char *name = rng() % 4 == 0 ? nullptr : names[rng() % 4];
            LusInstance *want = ReferenceScan(map, uuid.c_str(), vnic, name);
            LusInstance *got = AsLus([&] {
               return name == nullptr ? check(uuid.c_str(), vnic) : find(uuid.c_str(), vnic, name);
            });
            ASSERT_EQ(got, want) << "seed " << seed << ", operation " << op << ": " << uuid
                                 << " vnic " << vnic << " client " << (name ? name : "(any)");
            lookups++;
            hits += want != nullptr;
         }
      }
      std::printf("[ lookups ] %zu (%zu found), %zu records live\n", lookups, hits, live.size());
      EXPECT_GT(hits, lookups / 4);   // the run exercised matches, not only misses
      Var<LusHashMap *>("lusHashMap") = nullptr;
   }
};

TEST_F(PortMapDifferentialTest, BucketWalkFindsWhatTheFullScanFinds) {
   Load();
   const char *env = std::getenv("LUS_DIFF_SEED");
   const uint64_t seed = env != nullptr ? std::strtoull(env, nullptr, 10) : std::random_device{}();
   Run(seed, 100000);
}

}  // namespace
}  // namespace lustest
