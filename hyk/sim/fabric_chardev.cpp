// fabric_chardev.cpp -- character devices, user processes and the copies
// between kernel and user memory.
//
// A module registers a device; a UserProcess (fabric.h) opens it and issues
// calls on the process's own thread, which is marked as serving that process
// for the duration.  hyk_CopyFromUser / hyk_CopyToUser reach only the memory
// of the process the calling thread serves, and only whole ranges inside one
// of its mappings: anything else is HYK_BAD_ADDRESS and nothing is copied,
// as a real kernel refuses a bad user pointer instead of following it.
//
// An open file holds a use count on the device's owner, so the owner cannot
// be unloaded under an open file (the loader answers HYK_BUSY); this is the
// same pinning a real kernel does when a device node is opened.
#include <atomic>
#include <condition_variable>
#include <deque>
#include <future>
#include <map>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "hyksim/schedule.h"
#include "scheduler.h"
#include "fabric_common.h"
#include "hyksim/fabric.h"

namespace hyksim::fabric {

namespace {

constexpr hyk_UserVA kUserBase = 0x10000000;
constexpr uint64_t kPage = 0x1000;

struct Device {
   hyk_CharDevHandle handle = 0;
   std::string name;
   hyk_ModuleID owner = HYK_INVALID_MODULE_ID;
   hyk_CharDevOps ops{};
   hyk_CharDevUnregCleanupFn cleanup = nullptr;
   void *privateData = nullptr;
   uint32_t openFiles = 0;   // guarded by Devices::mu
};

struct File {
   std::shared_ptr<Device> device;
   hyk_CharDevFile file{};   // handed to the device's operations; stable address
};

struct Devices {
   std::mutex mu;
   std::map<std::string, std::shared_ptr<Device>> byName;
   std::map<hyk_CharDevHandle, std::shared_ptr<Device>> byHandle;
   std::map<uint64_t, std::shared_ptr<File>> files;
   uint64_t nextHandle = 1;
   uint64_t nextFile = 1;
};

void DropAll(Devices &d) {
   std::lock_guard<std::mutex> lk(d.mu);
   d.byName.clear();
   d.byHandle.clear();
   d.files.clear();
}

// The module's code is gone: its cleanup callback is not called.
void DropModule(Devices &d, hyk_ModuleID id, const std::string &module) {
   std::lock_guard<std::mutex> lk(d.mu);
   for (auto it = d.byName.begin(); it != d.byName.end();) {
      if (it->second->owner != id) {
         ++it;
         continue;
      }
      HostLog("module %s left device %s registered (%u open files); dropped", module.c_str(),
              it->first.c_str(), it->second->openFiles);
      d.byHandle.erase(it->second->handle);
      it = d.byName.erase(it);
   }
}

Devices &Devs() {
   // Never destroyed: process threads may outlive static destruction.
   static Devices *devices = [] {
      auto *d = new Devices;
      OnReset([d] { DropAll(*d); });
      OnModuleUnloaded([d](hyk_ModuleID id, const std::string &name) { DropModule(*d, id, name); });
      return d;
   }();
   return *devices;
}

std::shared_ptr<File> FindFile(uint64_t id) {
   Devices &d = Devs();
   std::lock_guard<std::mutex> lk(d.mu);
   auto it = d.files.find(id);
   return it == d.files.end() ? nullptr : it->second;
}

}  // namespace

// A process's memory: mapped ranges, each backed by host memory.
struct UserMemory {
   struct Range {
      hyk_UserVA base;
      uint64_t len;
      std::unique_ptr<uint8_t[]> bytes;
   };
   mutable std::mutex mu;
   std::vector<Range> ranges;
   uint64_t used = 0;
   uint64_t limit = 0;
   hyk_UserVA next = kUserBase;
   uint32_t pid = 0;

   // With mu held: host address of [va, va+len) when one range holds all of it.
   uint8_t *Locate(hyk_UserVA va, uint64_t len) const {
      for (const Range &r : ranges) {
         if (va >= r.base && len <= r.len && va - r.base <= r.len - len) {
            return r.bytes.get() + (va - r.base);
         }
      }
      return nullptr;
   }
};

namespace {

// The process the calling thread serves, nullptr for every other thread.
thread_local UserMemory *tServing = nullptr;

std::atomic<uint32_t> gNextPid{1000};

hyk_Status CopyUser(const char *op, void *kernel, hyk_UserVA user, uint32_t len, bool toUser) {
   AssertMaySleep(op);
   UserMemory *m = tServing;
   if (m == nullptr) {
      return HYK_BAD_ADDRESS;
   }
   if (kernel == nullptr && len != 0) {
      return HYK_BAD_PARAM;
   }
   std::lock_guard<std::mutex> lk(m->mu);
   uint8_t *bytes = m->Locate(user, len);
   if (bytes == nullptr) {
      return HYK_BAD_ADDRESS;
   }
   if (len != 0) {
      toUser ? std::memcpy(bytes, kernel, len) : std::memcpy(kernel, bytes, len);
   }
   return HYK_OK;
}

}  // namespace

}  // namespace hyksim::fabric

// ---- user processes ------------------------------------------------------------------

namespace hyksim {

using fabric::Devices;
using fabric::Devs;

struct UserProcess::Impl {
   std::string name;
   fabric::UserMemory memory;
   mutable std::mutex fdMu;
   std::map<int, uint64_t> fds;   // fd -> file
   int nextFd = 3;
   std::mutex queueMu;
   std::condition_variable queueCv;
   std::deque<std::function<void()>> queue;
   bool stopping = false;
   std::condition_variable doneCv;   // a task ran (Run waits for its own)
   HostThread thread;

   void Loop() {
      fabric::tServing = &memory;
      for (;;) {
         std::function<void()> task;
         {
            std::unique_lock<std::mutex> lk(queueMu);
            ::hyksim::sched::Wait(queueCv, lk, ::hyksim::sched::kNoDeadline, "a user process's work",
                        [&] { return stopping || !queue.empty(); });
            if (queue.empty()) {
               return;
            }
            task = std::move(queue.front());
            queue.pop_front();
         }
         task();
      }
   }

   uint64_t FileOf(int fd) const {
      std::lock_guard<std::mutex> lk(fdMu);
      auto it = fds.find(fd);
      return it == fds.end() ? 0 : it->second;
   }
};

UserProcess::UserProcess(const std::string &name, uint64_t memoryBytes) : impl_(new Impl) {
   impl_->name = name;
   impl_->memory.limit = memoryBytes;
   impl_->memory.pid = fabric::gNextPid++;
   impl_->thread = HostThread("process " + name, [this] { impl_->Loop(); });
}

// A process that exits closes what it has open.
UserProcess::~UserProcess() {
   Run([this] {
      std::vector<int> open;
      {
         std::lock_guard<std::mutex> lk(impl_->fdMu);
         for (const auto &[fd, file] : impl_->fds) {
            open.push_back(fd);
         }
      }
      for (int fd : open) {
         Close(fd);
      }
   });
   {
      std::lock_guard<std::mutex> lk(impl_->queueMu);
      impl_->stopping = true;
   }
   ::hyksim::sched::NotifyAll(impl_->queueCv);
   impl_->thread.Join();
   delete impl_;
}

uint32_t UserProcess::pid() const {
   return impl_->memory.pid;
}

hyk_UserVA UserProcess::Alloc(uint64_t len) {
   fabric::UserMemory &m = impl_->memory;
   std::lock_guard<std::mutex> lk(m.mu);
   if (len == 0 || len > m.limit - m.used) {
      return 0;
   }
   hyk_UserVA base = m.next;
   m.ranges.push_back({base, len, std::make_unique<uint8_t[]>(len)});
   m.used += len;
   // Round up to a page and leave one unmapped page as a guard.
   m.next = base + ((len + fabric::kPage - 1) / fabric::kPage + 1) * fabric::kPage;
   return base;
}

void UserProcess::Write(hyk_UserVA addr, const void *src, uint64_t len) {
   fabric::UserMemory &m = impl_->memory;
   std::lock_guard<std::mutex> lk(m.mu);
   uint8_t *bytes = m.Locate(addr, len);
   if (bytes == nullptr) {
      Panic("UserProcess %s: Write of %llu bytes at 0x%llx is outside its memory", impl_->name.c_str(),
            static_cast<unsigned long long>(len), static_cast<unsigned long long>(addr));
   }
   std::memcpy(bytes, src, len);
}

void UserProcess::Read(hyk_UserVA addr, void *dst, uint64_t len) const {
   const fabric::UserMemory &m = impl_->memory;
   std::lock_guard<std::mutex> lk(m.mu);
   const uint8_t *bytes = m.Locate(addr, len);
   if (bytes == nullptr) {
      Panic("UserProcess %s: Read of %llu bytes at 0x%llx is outside its memory", impl_->name.c_str(),
            static_cast<unsigned long long>(len), static_cast<unsigned long long>(addr));
   }
   std::memcpy(dst, bytes, len);
}

void UserProcess::Run(const std::function<void()> &fn) {
   if (std::this_thread::get_id() == impl_->thread.Id()) {
      fn();
      return;
   }
   bool done = false;
   {
      std::lock_guard<std::mutex> lk(impl_->queueMu);
      impl_->queue.push_back([&] {
         fn();
         std::lock_guard<std::mutex> doneLock(impl_->queueMu);
         done = true;
         ::hyksim::sched::NotifyAll(impl_->doneCv);
      });
   }
   ::hyksim::sched::NotifyAll(impl_->queueCv);
   std::unique_lock<std::mutex> lk(impl_->queueMu);
   ::hyksim::sched::Wait(impl_->doneCv, lk, ::hyksim::sched::kNoDeadline, "a user process", [&] { return done; });
}

size_t UserProcess::OpenFiles() const {
   std::lock_guard<std::mutex> lk(impl_->fdMu);
   return impl_->fds.size();
}

namespace {

// Gives up what an open took: the device's open count and the owner's pin.
void Unpin(const std::shared_ptr<fabric::Device> &device) {
   Devices &d = Devs();
   {
      std::lock_guard<std::mutex> lk(d.mu);
      device->openFiles--;
   }
   hyk_ModuleDecUseCount(device->owner);
}

// The open count is taken under the lock that unregistration checks, so a
// device cannot go between finding it and opening it.
hyk_Status Pin(const std::string &name, std::shared_ptr<fabric::Device> *out) {
   Devices &d = Devs();
   {
      std::lock_guard<std::mutex> lk(d.mu);
      auto it = d.byName.find(name);
      if (it == d.byName.end()) {
         return HYK_NOT_FOUND;
      }
      *out = it->second;
      (*out)->openFiles++;
   }
   hyk_Status status = hyk_ModuleIncUseCount((*out)->owner);
   if (status != HYK_OK) {
      std::lock_guard<std::mutex> lk(d.mu);
      (*out)->openFiles--;
   }
   return status;
}

}  // namespace

hyk_Status UserProcess::Open(const std::string &device, int *fd) {
   hyk_Status status = HYK_OK;
   Run([&] {
      std::shared_ptr<fabric::Device> dev;
      status = Pin(device, &dev);
      if (status != HYK_OK) {
         return;
      }
      auto file = std::make_shared<fabric::File>();
      file->device = dev;
      file->file = hyk_CharDevFile{dev->handle, pid(), nullptr};
      if (dev->ops.open == nullptr) {
         status = HYK_NOT_SUPPORTED;
      } else {
         fabric::ModuleScope scope(dev->owner, reinterpret_cast<const void *>(dev->ops.open));
         status = dev->ops.open(&file->file);
      }
      if (status != HYK_OK) {
         Unpin(dev);
         return;
      }
      Devices &d = Devs();
      uint64_t id;
      {
         std::lock_guard<std::mutex> lk(d.mu);
         id = d.nextFile++;
         d.files[id] = file;
      }
      std::lock_guard<std::mutex> lk(impl_->fdMu);
      *fd = impl_->nextFd++;
      impl_->fds[*fd] = id;
   });
   return status;
}

hyk_Status UserProcess::Close(int fd) {
   hyk_Status status = HYK_OK;
   Run([&] {
      uint64_t id = impl_->FileOf(fd);
      {
         std::lock_guard<std::mutex> lk(impl_->fdMu);
         impl_->fds.erase(fd);
      }
      std::shared_ptr<fabric::File> file;
      {
         Devices &d = Devs();
         std::lock_guard<std::mutex> lk(d.mu);
         auto it = d.files.find(id);
         if (it == d.files.end()) {
            status = HYK_INVALID_HANDLE;   // never open, or the host was reset under it
            return;
         }
         file = it->second;
         d.files.erase(it);
      }
      const hyk_CharDevOps &ops = file->device->ops;
      if (ops.close != nullptr) {
         fabric::ModuleScope scope(file->device->owner, reinterpret_cast<const void *>(ops.close));
         status = ops.close(&file->file);
      }
      Unpin(file->device);
   });
   return status;
}

namespace {

// Runs one device operation of an open file with the owner pushed.
template <typename Op, typename Call>
hyk_Status FileCall(uint64_t id, Op op, Call &&call) {
   std::shared_ptr<fabric::File> file = fabric::FindFile(id);
   if (file == nullptr) {
      return HYK_INVALID_HANDLE;
   }
   auto fn = file->device->ops.*op;
   if (fn == nullptr) {
      return HYK_NOT_SUPPORTED;
   }
   fabric::ModuleScope scope(file->device->owner, reinterpret_cast<const void *>(fn));
   return call(fn, &file->file);
}

}  // namespace

hyk_Status UserProcess::Ioctl(int fd, uint32_t cmd, hyk_UserVA arg) {
   hyk_Status status = HYK_OK;
   Run([&] {
      status = FileCall(impl_->FileOf(fd), &hyk_CharDevOps::ioctl,
                        [&](hyk_CharDevIoctlFn fn, hyk_CharDevFile *f) { return fn(f, cmd, arg); });
   });
   return status;
}

hyk_Status UserProcess::DevRead(int fd, hyk_UserVA buf, uint64_t len, uint64_t *done) {
   hyk_Status status = HYK_OK;
   Run([&] {
      status = FileCall(impl_->FileOf(fd), &hyk_CharDevOps::read,
                        [&](hyk_CharDevReadFn fn, hyk_CharDevFile *f) { return fn(f, buf, len, done); });
   });
   return status;
}

hyk_Status UserProcess::DevWrite(int fd, hyk_UserVA buf, uint64_t len, uint64_t *done) {
   hyk_Status status = HYK_OK;
   Run([&] {
      status = FileCall(impl_->FileOf(fd), &hyk_CharDevOps::write,
                        [&](hyk_CharDevWriteFn fn, hyk_CharDevFile *f) { return fn(f, buf, len, done); });
   });
   return status;
}

hyk_Status UserProcess::Poll(int fd, uint32_t *events) {
   hyk_Status status = HYK_OK;
   Run([&] {
      status = FileCall(impl_->FileOf(fd), &hyk_CharDevOps::poll,
                        [&](hyk_CharDevPollFn fn, hyk_CharDevFile *f) { return fn(f, events); });
   });
   return status;
}

std::vector<CharDevView> CharDevs() {
   Devices &d = Devs();
   std::lock_guard<std::mutex> lk(d.mu);
   std::vector<CharDevView> views;
   for (const auto &[name, dev] : d.byName) {
      views.push_back(CharDevView{name, dev->owner, dev->openFiles});
   }
   return views;
}

}  // namespace hyksim

// ---- module interface ------------------------------------------------------------------

extern "C" {

hyk_Status hyk_CharDevRegister(hyk_ModuleID moduleID, const char *name, const hyk_CharDevOps *ops,
                               hyk_CharDevUnregCleanupFn cleanup, void *privateData,
                               hyk_CharDevHandle *handle) {
   HYKSIM_FAULT_POINT("hyk_CharDevRegister");
   hyksim::AssertMaySleep("hyk_CharDevRegister");
   if (name == nullptr || *name == '\0' || ops == nullptr || handle == nullptr) {
      return HYK_BAD_PARAM;
   }
   size_t n = hyksim::fabric::BoundedLength(name, HYK_NAME_LEN);
   if (n == HYK_NAME_LEN) {
      return HYK_NAME_TOO_LONG;
   }
   if (!hyksim::ModuleLoaded(moduleID)) {
      return HYK_BAD_PARAM;   // a device belongs to a loaded module
   }
   auto dev = std::make_shared<hyksim::fabric::Device>();
   dev->name.assign(name, n);
   dev->owner = moduleID;
   dev->ops = *ops;
   dev->cleanup = cleanup;
   dev->privateData = privateData;
   hyksim::fabric::Devices &d = hyksim::fabric::Devs();
   std::lock_guard<std::mutex> lk(d.mu);
   if (d.byName.count(dev->name) != 0) {
      return HYK_EXISTS;
   }
   dev->handle = (uint64_t{0xc4a7} << 32) | d.nextHandle++;
   d.byName[dev->name] = dev;
   d.byHandle[dev->handle] = dev;
   *handle = dev->handle;
   return HYK_OK;
}

hyk_Status hyk_CharDevUnregister(hyk_CharDevHandle handle) {
   HYKSIM_FAULT_POINT("hyk_CharDevUnregister");
   std::shared_ptr<hyksim::fabric::Device> dev;
   {
      hyksim::fabric::Devices &d = hyksim::fabric::Devs();
      std::lock_guard<std::mutex> lk(d.mu);
      auto it = d.byHandle.find(handle);
      if (it == d.byHandle.end()) {
         return HYK_INVALID_HANDLE;
      }
      if (it->second->openFiles != 0) {
         return HYK_BUSY;
      }
      dev = it->second;
      d.byName.erase(dev->name);
      d.byHandle.erase(it);
   }
   if (dev->cleanup != nullptr) {
      hyksim::fabric::ModuleScope scope(dev->owner, reinterpret_cast<const void *>(dev->cleanup));
      dev->cleanup(dev->privateData);
   }
   return HYK_OK;
}

hyk_Status hyk_CopyFromUser(void *dst, hyk_UserVA src, uint32_t len) {
   HYKSIM_FAULT_POINT("hyk_CopyFromUser");
   return hyksim::fabric::CopyUser("hyk_CopyFromUser", dst, src, len, false);
}

hyk_Status hyk_CopyToUser(hyk_UserVA dst, const void *src, uint32_t len) {
   HYKSIM_FAULT_POINT("hyk_CopyToUser");
   return hyksim::fabric::CopyUser("hyk_CopyToUser", const_cast<void *>(src), dst, len, true);
}

}  // extern "C"
