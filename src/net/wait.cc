// Waiting for input: one wait, and the policy of waiting for a peer that may have died.
#include "net/wait.h"

#include <kel/logging.h>
#include <kel/net.h>

#include <sys/socket.h>

#include "internal/report.h"

using namespace kel::internal;

namespace {

constexpr char kName[] = "NetSelect";  // in reports
constexpr int kFirstWait = 60'000;     // milliseconds, doubled after each
constexpr int kWaits = 3;

/// What made the connection fail; reading that clears it.
int pending_error(int sock) {
  int error = 0;
  socklen_t size = sizeof error;
  const bool known = ::getsockopt(sock, SOL_SOCKET, SO_ERROR, &error, &size) == 0 && error != 0;
  return known ? error : EPIPE;
}

int wait_for_ever(int sock) {
  int limit = kFirstWait;
  for (int done = 0; done < kWaits; ++done, limit *= 2) {
    const Input input = await_input(sock, limit);
    if (input != Input::kExpired) return input == Input::kReady ? 1 : -1;
    report_warning(ETIMEDOUT,
                   "%s: socket %i poll() timed out after %i, increasing timeout to %i, retrying.",
                   kName, sock, limit, 2 * limit);
  }
  if (TraceOn())
    __Trace("%s: socket %i poll() timed out, out of retries, poll() infinite.", kName, sock);
  return await_input(sock, -1) == Input::kReady ? 1 : -1;
}

}  // namespace

Input kel::internal::await_input(int sock, long limit) {
  // poll() would wait for a negative descriptor as for a silent one.
  short events = POLLNVAL;
  const int ready = sock < 0 ? 1 : poll_one(sock, POLLIN, limit, &events);
  if (ready == -1) return fail(Input::kFailed, errno, "%s: poll failed", kName);
  if (ready == 0) return Input::kExpired;
  if ((events & POLLNVAL) != 0) return fail(Input::kFailed, EPIPE, "%s: invalid pipe", kName);
  if ((events & POLLERR) != 0)
    return fail(Input::kFailed, pending_error(sock), "%s: invalid pipe", kName);
  return Input::kReady;
}

int NetSelect(int sock, unsigned int timeout_ms) {
  if (timeout_ms == 0) return wait_for_ever(sock);
  const Input input = await_input(sock, timeout_ms);
  if (input == Input::kExpired)
    return fail(0, ETIMEDOUT, "%s: poll timed out after all retries", kName);
  return input == Input::kReady ? 1 : -1;
}

int NetCheckForInput(NetContext* ctx) {
  if (ctx == nullptr) return fail(0, EINVAL, "%s: invalid NULL parameter", __func__);
  const long limit = std::clamp(ctx->timeout * 1000L, 0L, long{UINT_MAX});
  return NetSelect(ctx->connection, static_cast<unsigned>(limit)) == 1 ? 1 : 0;
}
