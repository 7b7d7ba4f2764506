#include "peers.h"

#include <kel/logging.h>

#include <sys/socket.h>

#include <algorithm>
#include <system_error>

#include "stop_signals.h"

namespace lineserver {

Peers::~Peers() {
  {
    const std::lock_guard lock(mutex_);
    for (const Peer& peer : peers_)
      if (peer.sock) ::shutdown(peer.sock.get(), SHUT_RDWR);
  }
  for (Peer& peer : peers_) peer.thread.join();
}

void Peers::remove_ended() {
  std::list<Peer> ended;
  {
    const std::lock_guard lock(mutex_);
    for (auto at = peers_.begin(); at != peers_.end();) {
      const auto peer = at++;
      if (peer->has_ended) ended.splice(ended.end(), peers_, peer);
    }
  }
  for (Peer& peer : ended) peer.thread.join();
}

bool Peers::add(dedup::Descriptor& sock, Serve serve) {
  remove_ended();
  const std::lock_guard lock(mutex_);
  if (peers_.size() >= most_) return false;
  Peer& peer = peers_.emplace_back();
  try {
    peer.thread = std::thread([this, &peer, serve = std::move(serve)] { run(peer, serve); });
  } catch (const std::system_error& problem) {
    ErrorA(-1, "could not start a thread for a peer: %s", problem.what());
    peers_.pop_back();
    return false;
  }
  peer.sock = std::move(sock);
  return true;
}

void Peers::run(Peer& peer, const Serve& serve) {
  leave_stop_signals_to_others();
  int sock;
  {
    const std::lock_guard lock(mutex_);
    sock = peer.sock.get();
  }
  serve(sock);
  dedup::Descriptor closing;
  const std::lock_guard lock(mutex_);
  closing = std::move(peer.sock);
  peer.has_ended = true;
}

bool Peers::is_empty() {
  const std::lock_guard lock(mutex_);
  return std::all_of(peers_.begin(), peers_.end(), [](const Peer& peer) { return peer.has_ended; });
}

}  // namespace lineserver
