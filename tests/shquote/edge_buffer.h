// Memory directly before an inaccessible page, so that reading or writing one byte too far ends the
// test program in any build.
#ifndef TESTS_SHQUOTE_EDGE_BUFFER_H
#define TESTS_SHQUOTE_EDGE_BUFFER_H

#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstring>
#include <memory>
#include <new>
#include <string_view>
#include <utility>
#include <vector>

// Owns pages of memory and one inaccessible page after them.
class EdgePages {
 public:
  explicit EdgePages(std::size_t size) {
    const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    usable_ = (size / page + 1) * page;
    mapped_ = usable_ + page;
    void* memory =
        mmap(nullptr, mapped_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) throw std::bad_alloc();
    memory_ = static_cast<char*>(memory);
    if (mprotect(edge(), page, PROT_NONE) != 0) throw std::bad_alloc();
  }
  EdgePages(const EdgePages&) = delete;
  EdgePages& operator=(const EdgePages&) = delete;
  ~EdgePages() { munmap(memory_, mapped_); }

  char* edge() const { return memory_ + usable_; }
  std::size_t usable() const { return usable_; }

 private:
  char* memory_ = nullptr;
  std::size_t usable_ = 0;
  std::size_t mapped_ = 0;
};

// `size` bytes up to the edge, all 0x5a at first. Later buffers of the same thread reuse the pages,
// since tests create hundreds of thousands of buffers.
class EdgeBuffer {
 public:
  explicit EdgeBuffer(std::size_t size) : size_(size), pages_(takePages(size)) {
    std::memset(begin(), 0x5a, size);
  }
  explicit EdgeBuffer(std::string_view content) : EdgeBuffer(content.size()) {
    content.copy(begin(), content.size());
  }
  EdgeBuffer(const EdgeBuffer&) = delete;
  EdgeBuffer& operator=(const EdgeBuffer&) = delete;
  ~EdgeBuffer() { spares().push_back(std::move(pages_)); }

  char* begin() const { return pages_->edge() - size_; }
  std::size_t size() const { return size_; }

 private:
  using Pages = std::unique_ptr<EdgePages>;

  static std::vector<Pages>& spares() {
    thread_local std::vector<Pages> instance;
    return instance;
  }

  static Pages takePages(std::size_t size) {
    if (spares().empty() || spares().back()->usable() < size) {
      return std::make_unique<EdgePages>(size);
    }
    Pages pages = std::move(spares().back());
    spares().pop_back();
    return pages;
  }

  std::size_t size_;
  Pages pages_;
};

#endif  // TESTS_SHQUOTE_EDGE_BUFFER_H
