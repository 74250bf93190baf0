// One reader thread's event loop over the connections it accepted on a port.
// Internal to the library; Reader::run drives it.
#pragma once

#include <cstdint>
#include <set>
#include <unordered_map>
#include <utility>
#include <vector>

#include "sf/net/adaptor.h"
#include "sf/net/net.h"
#include "sf/platform/events.h"

namespace sf {

class Reader;

struct ReaderSettings {
  int maxConnections;  // sf.maxConnections, 0: no limit
  int alarmSeconds;    // sf.connWaitingAlarmSeconds
};
// Read once per process.
const ReaderSettings& readerSettings();

class ReaderLoop {
 public:
  // drainSeconds: how long a stop may take to answer what was received.
  ReaderLoop(Reader* reader, i_Port* port, const char* target, int drainSeconds);
  ~ReaderLoop();
  ReaderLoop(const ReaderLoop&) = delete;
  ReaderLoop& operator=(const ReaderLoop&) = delete;

  // Serves the port until shutdown is requested and the requests received
  // by then are answered (or the drain time is over); closes its
  // connections before it returns. The last of the port's loops to stop
  // accepting closes the listening socket.
  void run();

 private:
  typedef std::int64_t Ms;  // monotonic milliseconds

  // What the loop knows about one connection.
  struct Entry {
    Connection c;
    socket_t fd;                       // as registered in the event set
    bool unread = false;               // bytes were reported that are not taken yet
    bool hangup = false;               // the peer's close was reported
    bool ended = false;                // the peer closed its side
    Framing state = Framing::Unknown;  // the last answer for an unfinished message
    size_t framed = 0;                 // bytes the last framing answer saw
    Ms deadline = 0;                   // when the unfinished message runs out of time; 0: none
  };

  // The pieces of one pass.
  int waitMs(Ms now) const;
  void dispatch(const platform::EventSet::Ready& ready, Ms now);
  void readMail(Ms now);
  void serveAgain(Ms now);
  void expire(Ms now);
  void superviseAccepting(Ms now);

  // Stopping: no new clients; what was received is answered, within the
  // drain time; then every connection closes.
  void beginDrain(Ms now);
  bool anyInFlight() const;
  void closeAll();

  // Accepting.
  void acceptClients(Ms now);
  bool claimSlot();
  bool admit(Connection& fresh);
  void watchListening(bool on);
  void stopAccepting();

  // Serving a connection.
  void onReadable(Entry& e, bool hangup, Ms now);
  void process(Entry& e, Ms now);
  bool belowInFlightBound(i_Connection* rec);
  Framing frame(Entry& e);
  void serveOne(Connection& c);
  void noteOverload();
  void setDeadline(Entry& e, Ms when);
  size_t take(Entry& e);
  void drop(int id);

  Reader* reader_;
  i_Port* port_;
  const char* target_;
  platform::EventSet set_;
  ReaderMailbox* mailbox_;
  std::unordered_map<int, Entry> conns_;
  std::set<std::pair<Ms, int>> deadlines_;
  std::vector<int> again_;  // served their burst with whole messages left
  std::vector<int> turn_;   // those being served again in this pass

  bool listening_ = false;    // the listening socket is in the event set
  bool accepting_ = true;     // counted in the port's acceptors
  Ms acceptPausedUntil_ = 0;  // after an accept failure
  Ms nextAlarmCheck_ = 0;
  const int drainSeconds_;
  bool draining_ = false;  // shutdown was requested
  Ms drainUntil_ = 0;
};

}  // namespace sf
