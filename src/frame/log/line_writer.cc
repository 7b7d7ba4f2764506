#include "frame/log/line_writer.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "internal/transfer.h"

namespace kel::internal {

LineWriter::LineWriter(UniqueFd fd, uint64_t size)
    : fd_(std::move(fd)), gathered_(new char[kCapacity]), written_(size) {}

void LineWriter::append(std::string_view line) noexcept {
  if (line.size() > kCapacity - used_) flush();
  if (line.size() <= kCapacity - used_) {
    std::memcpy(gathered_.get() + used_, line.data(), line.size());
    used_ += line.size();
  } else if (used_ == 0) {
    write(line.data(), line.size());
  }
}

void LineWriter::flush() noexcept {
  if (used_ == 0) return;
  const size_t done = write(gathered_.get(), used_);
  used_ -= done;
  if (used_ != 0) std::memmove(gathered_.get(), gathered_.get() + done, used_);
}

void LineWriter::rebind(UniqueFd fd, uint64_t size) noexcept {
  fd_ = std::move(fd);
  written_ = size;
}

/// Returns how much of `data` is in the file for good. That is whole lines, unless the file cannot
/// be shortened; then the rest of the cut line is what has to be written next.
size_t LineWriter::write(const char* data, size_t size) noexcept {
  const auto [done, failed] = transfer_whole(size, [&](size_t from, size_t remaining) {
    return ::write(fd_.get(), data + from, remaining);
  });
  error_ = failed ? errno : done < size ? EIO : 0;
  size_t whole = done;
  if (done < size) {
    const size_t newline = std::string_view(data, done).rfind('\n');
    const size_t lines = newline == std::string_view::npos ? 0 : newline + 1;
    if (lines < done && take_back(done - lines)) whole = lines;
  }
  written_ += whole;
  return whole;
}

/// Takes the last `size` bytes off the file again, unless somebody has written behind them.
bool LineWriter::take_back(size_t size) noexcept {
  struct stat status;
  return ::fstat(fd_.get(), &status) == 0 && ::lseek(fd_.get(), 0, SEEK_CUR) == status.st_size &&
         ::ftruncate(fd_.get(), status.st_size - static_cast<off_t>(size)) == 0;
}

}  // namespace kel::internal
