// The rotating log file.
#include <cstdio>

#include "sf/base/logcontrol.h"
#include "sf/base/logfile.h"
#include "sf/platform/syserr.h"

namespace sf {

namespace {
const size_t kPathArea = 4096;

std::string braced(const std::string& s) {
  return "{" + s + "}";
}
}  // namespace

void LogFile::configure(const std::string& dir, const std::string& stem, int limitKiB, int count) {
  // A stream kept open by a rotation that found the file already rotated
  // belongs to the old place.
  if (stream_) {
    fclose(stream_);
    stream_ = nullptr;
  }
  dir_ = dir;
  stem_ = stem;
  limitKiB_ = limitKiB;
  count_ = count;
}

void LogFile::setLockHooks(const LogFileLockHooks* hooks) {
  hooks_ = hooks ? *hooks : LogFileLockHooks{nullptr, nullptr};
}

std::string LogFile::path() const {
  char area[kPathArea];
  snprintf(area, sizeof area, "%s/%s.log", dir_.c_str(), stem_.c_str());
  return area;
}

std::string LogFile::numberedPath(int n) const {
  char area[kPathArea];
  snprintf(area, sizeof area, "%s/%s-%d.log", dir_.c_str(), stem_.c_str(), n);
  return area;
}

LogFile::Failure LogFile::write(const std::string& line) {
  const LogFileLockHooks hooks = hooks_;  // the same pair around the whole write
  if (hooks.lock) hooks.lock();
  Failure failure;
  if (append(line, failure)) failure = rotate();
  if (hooks.unlock) hooks.unlock();
  return failure;
}

bool LogFile::append(const std::string& line, Failure& failure) {
  if (!stream_) {
    // Binary: a line ends in '\n' on every system and ftell counts bytes.
    stream_ = fopen(path().c_str(), "ab");
    if (!stream_) {
      failure = {"08_sf_openlog_s", braced(path())};
      return false;
    }
  }
  fputs(line.c_str(), stream_);
  fflush(stream_);
  long size = ftell(stream_);
  if (size / 1024 >= limitKiB_) return true;
  fclose(stream_);
  stream_ = nullptr;
  return false;
}

LogFile::Failure LogFile::rotate() {
  fclose(stream_);
  stream_ = fopen(path().c_str(), "ab");
  if (stream_) {
    fseek(stream_, 0, SEEK_END);
    // Another writer rotated meanwhile: keep appending to the new file.
    if (ftell(stream_) / 1024 < limitKiB_) return {};
    fclose(stream_);
    stream_ = nullptr;
  }
  std::string oldest = numberedPath(count_ - 1);
  if (::remove(oldest.c_str()) != 0 && !platform::is_missing_file(platform::last_error())) {
    return {"15_sf_removelog_s", braced(oldest)};
  }
  for (int i = count_ - 2; i >= 0; --i) {
    std::string from = numberedPath(i);
    std::string to = numberedPath(i + 1);
    if (::rename(from.c_str(), to.c_str()) != 0 &&
        !platform::is_missing_file(platform::last_error())) {
      return {"14_sf_renamelog_s_s", braced(from) + " " + braced(to)};
    }
  }
  std::string current = path();
  std::string first = numberedPath(0);
  if (::rename(current.c_str(), first.c_str()) != 0 &&
      !platform::is_missing_file(platform::last_error())) {
    return {"14_sf_renamelog_s_s", braced(current) + " " + braced(first)};
  }
  return {};
}

}  // namespace sf
