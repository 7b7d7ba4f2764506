// The peers that are served, a thread for each, and no more than a given number.
#pragma once

#include <functional>
#include <list>
#include <mutex>
#include <thread>

#include "descriptor.h"

namespace lineserver {

class Peers {
 public:
  /// Serves a socket, which stays the caller's; must not throw.
  using Serve = std::function<void(int sock)>;

  explicit Peers(size_t most) : most_(most) {}
  /// Hangs up, and waits for all threads.
  ~Peers();
  Peers(const Peers&) = delete;
  Peers& operator=(const Peers&) = delete;

  /// Begins to serve a peer and takes its socket over; false when there are too many.
  bool add(dedup::Descriptor& sock, Serve serve);
  bool is_empty();

 private:
  struct Peer {
    dedup::Descriptor sock;
    std::thread thread;
    bool has_ended = false;
  };

  void run(Peer& peer, const Serve& serve);
  void remove_ended();

  const size_t most_;
  std::mutex mutex_;
  std::list<Peer> peers_;
};

}  // namespace lineserver
