#include "platform/VaultShm.h"

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/random.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <mutex>
#include <utility>

namespace Vault::Shm {

namespace {

constexpr const char* shmDirectory = "/dev/shm/";
constexpr size_t headerBytes = 4096;
constexpr size_t nameMax = 40;

void checkName(std::string_view what, std::string_view name) {
   bool ok = !name.empty() && name.size() <= nameMax;
   for (char c : name) {
      ok = ok && ((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                  c == '_' || c == '-');
   }
   if (!ok) {
      throw std::invalid_argument("Vault " + std::string(what) + " name '" + std::string(name) +
                                  "': 1 to 40 letters, digits, '_' or '-'");
   }
}

std::string errnoText(const std::string& what) { return what + ": " + std::strerror(errno); }

// A process's command name, as ps shows it; empty when it cannot be read.
std::string commandOf(pid_t pid) {
   std::string command;
   const std::string file = "/proc/" + std::to_string(pid) + "/comm";
   if (FILE* f = std::fopen(file.c_str(), "r")) {
      char buffer[64] = {};
      if (std::fgets(buffer, sizeof buffer, f)) command = buffer;
      std::fclose(f);
   }
   while (!command.empty() && command.back() == '\n') command.pop_back();
   return command;
}

bool isPowerOfTwo(uint64_t v) { return v != 0 && (v & (v - 1)) == 0; }
uint64_t roundUp(uint64_t v, uint64_t to) { return (v + to - 1) / to * to; }

// The abstract-namespace socket of one reader slot: nothing in the file system to clean up.
sockaddr_un wakeAddress(const std::string& path, uint32_t slot, uint32_t token, socklen_t& len) {
   sockaddr_un addr{};
   addr.sun_family = AF_UNIX;
   const std::string base = path.substr(path.rfind('/') + 1);
   // The token and slot first: a long router and table name is cut at the end, never them.
   char name[sizeof addr.sun_path];
   const int wanted =
       std::snprintf(name, sizeof name, "srte-vault.%08x.%u.%s", token, slot, base.c_str());
   const size_t n = std::min(static_cast<size_t>(std::max(wanted, 0)), sizeof addr.sun_path - 1);
   addr.sun_path[0] = '\0';
   std::memcpy(addr.sun_path + 1, name, n);
   len = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + n);
   return addr;
}

// Every segment this process maps, for the bus-error handler: a file cut under its mapping
// faults on the lost pages, and a fault there must not end the process.
struct Watched {
   std::atomic<uintptr_t> headerBegin{0}, dataBegin{0}, dataEnd{0};
   std::atomic<uint32_t> cut{0};
   std::atomic<uint32_t> used{0};
};
constexpr size_t watchedMax = 1024;
Watched watched[watchedMax];
struct sigaction busBefore {};

bool within(uintptr_t a, uintptr_t begin, uintptr_t end) { return begin && a >= begin && a < end; }

// A fault in a watched segment: a zero page goes where the lost one was, the segment is marked
// cut, and the faulting read runs again and reads zeros. Anything else: as before.
void onBusError(int, siginfo_t* info, void*) {
   const uintptr_t a = reinterpret_cast<uintptr_t>(info->si_addr);
   for (Watched& w : watched) {
      if (!w.used.load(std::memory_order_acquire)) continue;
      const uintptr_t h = w.headerBegin.load(std::memory_order_relaxed);
      if (!within(a, h, h + headerBytes) && !within(a, w.dataBegin.load(std::memory_order_relaxed),
                                                    w.dataEnd.load(std::memory_order_relaxed))) {
         continue;
      }
      void* page = reinterpret_cast<void*>(a & ~uintptr_t{4095});
      if (mmap(page, 4096, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED, -1,
               0) != MAP_FAILED) {
         w.cut.store(1, std::memory_order_relaxed);
         return;
      }
   }
   sigaction(SIGBUS, &busBefore, nullptr);
}

void installBusHandler() {
   static std::once_flag once;
   std::call_once(once, [] {
      struct sigaction action {};
      action.sa_sigaction = onBusError;
      action.sa_flags = SA_SIGINFO;
      sigemptyset(&action.sa_mask);
      sigaction(SIGBUS, &action, &busBefore);
   });
}

} // namespace

std::string segmentPath(std::string_view router, std::string_view table) {
   checkName("router", router);
   checkName("table", table);
   return std::string(shmDirectory) + "srte." + std::string(router) + "." + std::string(table);
}

std::vector<std::string> tablesOf(std::string_view router) {
   checkName("router", router);
   const std::string prefix = "srte." + std::string(router) + ".";
   std::vector<std::string> tables;
   if (DIR* dir = opendir(shmDirectory)) {
      while (const dirent* e = readdir(dir)) {
         const std::string_view name = e->d_name;
         if (!name.starts_with(prefix)) continue;
         const std::string_view table = name.substr(prefix.size());
         // Segments still being made carry a further dot.
         if (!table.empty() && table.find('.') == std::string_view::npos) {
            tables.emplace_back(table);
         }
      }
      closedir(dir);
   }
   return tables;
}

bool removeTable(std::string_view router, std::string_view table) {
   return unlink(segmentPath(router, table).c_str()) == 0;
}

namespace {

// Removes the files of the shared-memory directory whose name starts with `prefix` and for which
// `remove(rest of the name)` says so.
template <class F>
size_t removeWhere(const std::string& prefix, F remove) {
   std::vector<std::string> doomed;
   if (DIR* dir = opendir(shmDirectory)) {
      while (const dirent* e = readdir(dir)) {
         const std::string_view name = e->d_name;
         if (name.starts_with(prefix) && remove(name.substr(prefix.size()))) {
            doomed.emplace_back(name);
         }
      }
      closedir(dir);
   }
   size_t removed = 0;
   for (const std::string& name : doomed) {
      if (unlink((std::string(shmDirectory) + name).c_str()) == 0) ++removed;
   }
   return removed;
}

// The segments being made for the segment named `name` (in the shared-memory directory) by
// processes that no longer run.
size_t removeDeadMakings(std::string_view name) {
   return removeWhere(std::string(name) + ".new.", [](std::string_view pidText) {
      if (pidText.empty() || pidText.size() > 9 ||
          pidText.find_first_not_of("0123456789") != std::string_view::npos) {
         return false;
      }
      const pid_t pid = static_cast<pid_t>(std::stol(std::string(pidText)));
      return pid > 0 && pid != getpid() && kill(pid, 0) != 0 && errno == ESRCH;
   });
}

} // namespace

size_t removeLeftovers(std::string_view router, std::string_view table) {
   const std::string path = segmentPath(router, table);
   return removeDeadMakings(std::string_view(path).substr(std::strlen(shmDirectory)));
}

size_t removeRouter(std::string_view router) {
   checkName("router", router);
   // Names hold no '.', so this prefix is this router's alone.
   return removeWhere("srte." + std::string(router) + ".", [](std::string_view) { return true; });
}

bool waitReadable(int fd, int timeoutMs) {
   pollfd p{fd, POLLIN, 0};
   for (;;) {
      const int n = poll(&p, 1, timeoutMs);
      if (n >= 0) return n > 0;
      if (errno != EINTR) return false;
   }
}

namespace detail {

std::optional<Layout> Layout::of(uint32_t keySize, uint32_t recordSize, uint64_t capacity,
                                 uint64_t ringCapacity) {
   if (keySize == 0 || keySize > 4096 || recordSize == 0 || recordSize > (1u << 20)) return {};
   if (capacity == 0 || capacity > (uint64_t{1} << 30)) return {};
   if (!isPowerOfTwo(ringCapacity) || ringCapacity < 2 || ringCapacity > (uint64_t{1} << 24)) {
      return {};
   }
   Layout l;
   l.capacity = capacity;
   l.slotCount = capacity + 1;
   l.indexCapacity = 8;
   while (l.indexCapacity < 2 * capacity) l.indexCapacity *= 2;
   l.ringCapacity = ringCapacity;
   l.indexOffset[0] = 0;
   l.indexOffset[1] = l.indexCapacity * 8;
   l.ringOffset = 2 * l.indexCapacity * 8;
   l.ringEntrySize = roundUp(8 + keySize, 8);
   l.slotOffset = roundUp(l.ringOffset + ringCapacity * l.ringEntrySize, 64);
   l.slotSize = roundUp(8 + recordSize, 8);
   l.totalSize = headerBytes + l.slotOffset + l.slotCount * l.slotSize;
   return l;
}

Segment::Segment(Segment&& o) noexcept
    : path_(std::move(o.path_)), fd_(std::exchange(o.fd_, -1)),
      wakeFd_(std::exchange(o.wakeFd_, -1)), header_(std::exchange(o.header_, nullptr)),
      data_(std::exchange(o.data_, nullptr)), dataLen_(std::exchange(o.dataLen_, 0)),
      layout_(o.layout_), created_(o.created_), tookOver_(o.tookOver_),
      cut_(std::exchange(o.cut_, nullptr)) {}

Segment::~Segment() {
   if (cut_) {
      auto* w = reinterpret_cast<Watched*>(reinterpret_cast<char*>(cut_) - offsetof(Watched, cut));
      w->used.store(0, std::memory_order_release);
   }
   if (data_) munmap(data_, dataLen_);
   if (header_) munmap(header_, headerBytes);
   if (wakeFd_ >= 0) close(wakeFd_);
   if (fd_ >= 0) close(fd_); // drops the writer's lock, if any
}

// A million random lookups in a segment of 4 KiB pages are TLB misses as much as cache misses;
// where the host lets shared memory have huge pages (transparent_hugepage/shmem_enabled at
// "advise"), this asks for them. Elsewhere it changes nothing.
void Segment::adviseHugePages() noexcept {
   if (data_) madvise(data_, dataLen_, MADV_HUGEPAGE);
}

void Segment::corrupt(const std::string& what) const {
   throw Corruption("Vault table " + path_ + " is corrupt: " + what);
}

Segment Segment::mapExisting(const std::string& path, int fd, Role role, uint32_t keySize,
                             uint32_t recordSize) {
   Segment s;
   s.path_ = path;
   s.fd_ = fd;
   struct stat st {};
   if (fstat(fd, &st) != 0) throw std::runtime_error(errnoText("Vault table " + path));
   const uint64_t fileSize = static_cast<uint64_t>(st.st_size);
   if (fileSize < headerBytes) {
      s.corrupt("truncated: " + std::to_string(fileSize) + " bytes, less than its header");
   }
   void* h = mmap(nullptr, headerBytes, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
   if (h == MAP_FAILED) throw std::runtime_error(errnoText("Vault table " + path + ": mmap"));
   s.header_ = static_cast<Header*>(h);
   const Header& hd = *s.header_;
   if (hd.magic != segmentMagic) s.corrupt("wrong magic");
   if (hd.version != segmentVersion) {
      s.corrupt("version " + std::to_string(hd.version) + ", expected " +
                std::to_string(segmentVersion));
   }
   if (hd.headerSize != headerBytes) s.corrupt("header size " + std::to_string(hd.headerSize));
   if (hd.keySize != keySize) {
      s.corrupt("key size " + std::to_string(hd.keySize) + ", expected " + std::to_string(keySize));
   }
   if (hd.recordSize != recordSize) {
      s.corrupt("record size " + std::to_string(hd.recordSize) + ", expected " +
                std::to_string(recordSize));
   }
   const std::optional<Layout> layout =
       Layout::of(keySize, recordSize, hd.capacity, hd.ringCapacity);
   if (!layout || layout->indexCapacity != hd.indexCapacity || layout->totalSize != hd.totalSize) {
      s.corrupt("geometry does not add up (capacity " + std::to_string(hd.capacity) + ", ring " +
                std::to_string(hd.ringCapacity) + ")");
   }
   if (fileSize < layout->totalSize) {
      s.corrupt("truncated: " + std::to_string(fileSize) + " bytes of " +
                std::to_string(layout->totalSize));
   }
   s.layout_ = *layout;
   s.dataLen_ = layout->totalSize - headerBytes;
   const int prot = role == Role::writer ? PROT_READ | PROT_WRITE : PROT_READ;
   void* d = mmap(nullptr, s.dataLen_, prot, MAP_SHARED, fd, headerBytes);
   if (d == MAP_FAILED) throw std::runtime_error(errnoText("Vault table " + path + ": mmap"));
   s.data_ = static_cast<uint8_t*>(d);
   s.adviseHugePages();
   s.watchMappings();
   return s;
}

Segment Segment::openReader(const std::string& path, uint32_t keySize, uint32_t recordSize) {
   const int fd = open(path.c_str(), O_RDWR | O_CLOEXEC);
   if (fd < 0) {
      if (errno == ENOENT) throw NotFound("Vault table " + path + " does not exist");
      throw std::runtime_error(errnoText("Vault table " + path));
   }
   return mapExisting(path, fd, Role::reader, keySize, recordSize);
}

Segment Segment::openWriter(const std::string& path, uint32_t keySize, uint32_t recordSize,
                            const Geometry& geometry) {
   if (!Layout::of(keySize, recordSize, geometry.capacity, geometry.ringCapacity)) {
      throw std::invalid_argument("Vault table " + path +
                                  ": capacity 1 to 2^30 records, ring a "
                                  "power of two from 2 to 2^24");
   }
   // What writers killed while making this table left behind.
   if (path.starts_with(shmDirectory)) {
      removeDeadMakings(std::string_view(path).substr(std::strlen(shmDirectory)));
   }
   // Another writer may create or remove it meanwhile: a few rounds settle that.
   for (int round = 0; round < 16; ++round) {
      const int fd = open(path.c_str(), O_RDWR | O_CLOEXEC);
      if (fd >= 0) {
         Segment s = mapExisting(path, fd, Role::writer, keySize, recordSize);
         s.claimWriter();
         return s;
      }
      if (errno != ENOENT) throw std::runtime_error(errnoText("Vault table " + path));
      Segment s = createNew(path, keySize, recordSize, geometry);
      if (s.header_) return s;
   }
   throw std::runtime_error("Vault table " + path + ": cannot settle who creates it");
}

// Made whole under a private name, then linked under its own: no reader ever maps a segment
// that is being set up. Empty (no header) when another process linked one first.
Segment Segment::createNew(const std::string& path, uint32_t keySize, uint32_t recordSize,
                           const Geometry& geometry) {
   const Layout layout = *Layout::of(keySize, recordSize, geometry.capacity, geometry.ringCapacity);
   const std::string making = path + ".new." + std::to_string(getpid());
   const int fd = open(making.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0660);
   if (fd < 0) throw std::runtime_error(errnoText("Vault table " + making));
   Segment s;
   s.path_ = path;
   s.fd_ = fd;
   struct flock lock {};
   lock.l_type = F_WRLCK;
   lock.l_whence = SEEK_SET;
   lock.l_len = 1;
   if (fcntl(fd, F_OFD_SETLK, &lock) != 0 ||
       ftruncate(fd, static_cast<off_t>(layout.totalSize)) != 0) {
      const std::string error = errnoText("Vault table " + making);
      unlink(making.c_str());
      throw std::runtime_error(error);
   }
   void* h = mmap(nullptr, headerBytes, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
   void* d = mmap(nullptr, layout.totalSize - headerBytes, PROT_READ | PROT_WRITE, MAP_SHARED, fd,
                  headerBytes);
   if (h == MAP_FAILED || d == MAP_FAILED) {
      unlink(making.c_str());
      throw std::runtime_error(errnoText("Vault table " + making + ": mmap"));
   }
   s.header_ = static_cast<Header*>(h);
   s.data_ = static_cast<uint8_t*>(d);
   s.dataLen_ = layout.totalSize - headerBytes;
   s.adviseHugePages();
   s.watchMappings();
   s.layout_ = layout;
   Header& hd = *s.header_; // a new file reads as zeros: every atomic starts at 0
   hd.version = segmentVersion;
   hd.headerSize = headerBytes;
   hd.keySize = keySize;
   hd.recordSize = recordSize;
   hd.capacity = layout.capacity;
   hd.indexCapacity = layout.indexCapacity;
   hd.ringCapacity = layout.ringCapacity;
   hd.totalSize = layout.totalSize;
   s.wakeFd_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
   if (s.wakeFd_ < 0) {
      unlink(making.c_str());
      throw std::runtime_error(errnoText("Vault table " + path + ": socket"));
   }
   const std::string command = commandOf(getpid());
   std::strncpy(hd.writerCommand, command.c_str(), sizeof hd.writerCommand - 1);
   hd.writerPid.store(static_cast<uint32_t>(getpid()), std::memory_order_release);
   hd.magic = segmentMagic;
   const int linked = link(making.c_str(), path.c_str());
   const int linkErrno = errno;
   unlink(making.c_str());
   if (linked != 0) {
      if (linkErrno == EEXIST) return Segment();
      errno = linkErrno;
      throw std::runtime_error(errnoText("Vault table " + path));
   }
   s.created_ = true;
   return s;
}

// The lock is on the open file description: the kernel lets it go when the holder dies, so the
// claim of a killed writer never outlives it.
void Segment::claimWriter() {
   struct flock lock {};
   lock.l_type = F_WRLCK;
   lock.l_whence = SEEK_SET;
   lock.l_len = 1;
   if (fcntl(fd_, F_OFD_SETLK, &lock) != 0) {
      if (errno != EAGAIN && errno != EACCES) {
         throw std::runtime_error(errnoText("Vault table " + path_ + ": lock"));
      }
      // The holder writes its pid right after taking the lock.
      uint32_t holder = 0;
      for (int i = 0; i < 100 && holder == 0; ++i) {
         holder = header_->writerPid.load(std::memory_order_acquire);
         if (holder == 0) usleep(1000);
      }
      std::string command = holder ? commandOf(static_cast<pid_t>(holder)) : "";
      if (command.empty()) {
         command.assign(header_->writerCommand,
                        strnlen(header_->writerCommand, sizeof header_->writerCommand));
      }
      throw WriterBusy("Vault table " + path_ + " is written by process " + std::to_string(holder) +
                           " (" + command + ")",
                       static_cast<pid_t>(holder), command);
   }
   wakeFd_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
   if (wakeFd_ < 0) throw std::runtime_error(errnoText("Vault table " + path_ + ": socket"));
   // A writer that closed the table cleared its pid: one still there died holding the table.
   const uint32_t previous = header_->writerPid.load(std::memory_order_acquire);
   tookOver_ = previous != 0;
   std::memset(header_->writerCommand, 0, sizeof header_->writerCommand);
   const std::string command = commandOf(getpid());
   std::strncpy(header_->writerCommand, command.c_str(), sizeof header_->writerCommand - 1);
   header_->writerPid.store(static_cast<uint32_t>(getpid()), std::memory_order_release);
}

void Segment::watchMappings() {
   installBusHandler();
   for (Watched& w : watched) {
      uint32_t free = 0;
      if (!w.used.compare_exchange_strong(free, 2)) continue; // 2: being filled
      w.cut.store(0, std::memory_order_relaxed);
      w.headerBegin.store(reinterpret_cast<uintptr_t>(header_), std::memory_order_relaxed);
      w.dataBegin.store(reinterpret_cast<uintptr_t>(data_), std::memory_order_relaxed);
      w.dataEnd.store(reinterpret_cast<uintptr_t>(data_) + dataLen_, std::memory_order_relaxed);
      w.used.store(1, std::memory_order_release);
      cut_ = &w.cut;
      return;
   }
   throw std::runtime_error("Vault table " + path_ + ": more than " + std::to_string(watchedMax) +
                            " tables mapped");
}

void Segment::reportCut() const {
   struct stat st {};
   const long long size = fstat(fd_, &st) == 0 ? static_cast<long long>(st.st_size) : -1;
   corrupt("truncated while in use: " + std::to_string(size) + " bytes of " +
           std::to_string(layout_.totalSize));
}

pid_t Segment::livingWriter() const {
   const pid_t pid = static_cast<pid_t>(header_->writerPid.load(std::memory_order_acquire));
   checkNotCut();
   if (pid == 0) return 0;
   // The pid of a writer killed without closing stays in the header.
   return kill(pid, 0) == 0 || errno == EPERM ? pid : 0;
}

bool Segment::replaced() const noexcept {
   struct stat mine {
   }, named{};
   if (fstat(fd_, &mine) != 0) return true;
   if (stat(path_.c_str(), &named) != 0) return true;
   return mine.st_dev != named.st_dev || mine.st_ino != named.st_ino;
}

void Segment::releaseWriter() noexcept {
   if (header_) header_->writerPid.store(0, std::memory_order_release);
}

uint32_t Segment::claimReaderSlot(int& socketFd) {
   const uint32_t me = static_cast<uint32_t>(getpid());
   std::optional<uint32_t> claimed;
   for (int pass = 0; pass < 2 && !claimed; ++pass) {
      for (uint32_t i = 0; i < readerSlotCount && !claimed; ++i) {
         ReaderSlot& r = header_->readers[i];
         uint32_t pid = r.pid.load(std::memory_order_acquire);
         // First pass: free slots; second: slots of readers that died without letting go.
         const bool take =
             pass == 0 ? pid == 0
                       : pid != 0 && kill(static_cast<pid_t>(pid), 0) != 0 && errno == ESRCH;
         if (take && r.pid.compare_exchange_strong(pid, me)) claimed = i;
      }
   }
   if (!claimed) {
      throw std::runtime_error("Vault table " + path_ + ": all " + std::to_string(readerSlotCount) +
                               " reader slots are taken");
   }
   const uint32_t slot = *claimed;
   ReaderSlot& r = header_->readers[slot];
   r.armed.store(0, std::memory_order_relaxed);
   uint32_t token = 0;
   if (getrandom(&token, sizeof token, 0) != sizeof token) {
      token = me * 2654435761u ^ static_cast<uint32_t>(clock());
   }
   const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
   socklen_t len = 0;
   const sockaddr_un addr = wakeAddress(path_, slot, token, len);
   if (fd < 0 || bind(fd, reinterpret_cast<const sockaddr*>(&addr), len) != 0) {
      const std::string error = errnoText("Vault table " + path_ + ": reader socket");
      if (fd >= 0) close(fd);
      r.pid.store(0, std::memory_order_release);
      throw std::runtime_error(error);
   }
   r.token.store(token, std::memory_order_release);
   uint32_t high = header_->readerHigh.load(std::memory_order_acquire);
   while (high < slot + 1 && !header_->readerHigh.compare_exchange_weak(high, slot + 1)) {
   }
   socketFd = fd;
   return slot;
}

void Segment::releaseReaderSlot(uint32_t slot, int socketFd) noexcept {
   // In a segment cut under us, these land on a zero page of our own: harmless.
   ReaderSlot& r = header_->readers[slot];
   r.armed.store(0, std::memory_order_relaxed);
   r.token.store(0, std::memory_order_relaxed);
   r.pid.store(0, std::memory_order_release);
   close(socketFd);
}

void Segment::consumeWakeups(int socketFd) noexcept {
   char buffer[64];
   while (recv(socketFd, buffer, sizeof buffer, MSG_DONTWAIT) >= 0) {
   }
}

void Segment::wakeReaders() noexcept {
   const uint32_t high =
       std::min(header_->readerHigh.load(std::memory_order_acquire), readerSlotCount);
   for (uint32_t i = 0; i < high; ++i) {
      ReaderSlot& r = header_->readers[i];
      if (r.armed.load(std::memory_order_seq_cst) == 0) continue;
      if (r.armed.exchange(0, std::memory_order_seq_cst) == 0) continue;
      socklen_t len = 0;
      const sockaddr_un addr = wakeAddress(path_, i, r.token.load(std::memory_order_acquire), len);
      const char byte = 1;
      // A full socket already holds a wake-up; a gone reader is told nothing.
      sendto(wakeFd_, &byte, 1, MSG_DONTWAIT | MSG_NOSIGNAL,
             reinterpret_cast<const sockaddr*>(&addr), len);
   }
}

} // namespace detail

} // namespace Vault::Shm
