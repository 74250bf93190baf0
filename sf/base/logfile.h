// The log's file sink: appends lines to <dir>/<stem>.log, opening and closing
// the file for every record so that external tools may move it at any time,
// and rotates it into the numbered set <stem>-0.log (newest) ...
// <stem>-<count-1>.log once it reaches the size limit.
//
// Not thread-safe: the log serialises calls under its lock. When lock hooks
// are installed (the shared statistics block), each write and rotation runs
// between them, serialising processes that share the directory.
#pragma once

#include <cstdio>
#include <string>

#include "sf/base/log.h"
#include "sf/base/logcontrol.h"

namespace sf {

class LogFile {
 public:
  // What went wrong, as an event to report once the log lock is released.
  struct Failure {
    std::string eventId;  // empty: nothing went wrong
    std::string argText;
  };

  void configure(const std::string& dir, const std::string& stem, int limitKiB, int count);
  void setLockHooks(const LogFileLockHooks* hooks);
  Failure write(const std::string& line);

  // The two steps of a write without the lock hooks. append() adds the line
  // and tells whether the file has reached the size limit, its stream then
  // left open; rotate() rotates it unless another writer has done so since.
  // Public so that a test can let a second writer rotate in between, as a
  // process that shares the directory without the shared lock may.
  bool append(const std::string& line, Failure& failure);
  Failure rotate();

 private:
  std::string path() const;
  std::string numberedPath(int n) const;

  std::string dir_ = ".";
  std::string stem_ = "sf";
  int limitKiB_ = 1024;
  int count_ = 5;
  FILE* stream_ = nullptr;
  LogFileLockHooks hooks_{nullptr, nullptr};
};

}  // namespace sf
