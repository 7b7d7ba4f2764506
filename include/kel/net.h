/**
 * @file
 * Sockets: services that listen, clients that connect, and lines of text between them.
 *
 * A service makes a listening context (NetSetup()), waits for peers, and answers each on the
 * context's connection. A client connects to an address list (kel/address.h), from a local
 * interface of its choice, through a host route, or through a SOCKS5 relay where the list says so.
 * Both send lines with NetSend(); a client that keeps its socket in a context reads the answers
 * with NetReadReply(). The lines are described in docs/formats/line-protocol.md.
 *
 * Every socket made here is closed when the process starts another program.
 *
 * Failures are reported, with `errno` at the failing call's value, unless a function says
 * otherwise. A signal does not end a wait, but that for a peer.
 *
 * Threads: no locks and no state but what NetReadReply() does to SIGPIPE and the names of peers
 * that NetWaitForRemote() remembers. A context belongs to one thread at a time; different sockets
 * and contexts are independent, but one thread of the process at a time waits for peers.
 *
 * @code
 * NetContext *service = NetSetup("10.0.0.0/8", 10082);
 * if (service == NULL) return -1;
 * service->allowedPeers = strdup("10.0.0.0/8");
 * for (int sock; (sock = NetWaitForRemote(service)) >= 0; close(sock)) {
 *   service->connection = -1;                               // `sock` is ours now
 *   answer(sock, service->remoteHost);
 * }
 *
 * NetContext client = {.timeout = 30};
 * client.connection = NetConnectByAddr(list, NULL);
 * NetSend(client.connection, "QUERY %s", fingerprint);
 * if (NetReadReply(&client) == KEL_NET_REPLY_OK) use(client.replyBuffer);
 * close(client.connection);
 * @endcode
 */
#ifndef KEL_NET_H
#define KEL_NET_H

#include <kel/address.h>
#include <kel/export.h>
#include <kel/iprange.h>

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/socket.h>

#ifdef __cplusplus
#include <map>
#include <string>
#endif

/** @name Options of a socket: bits of the flags
 * @{ */
#define KEL_NET_NAGLE 1     /**< leave Nagle's algorithm on; else TCP_NODELAY is set */
#define KEL_NET_KEEPALIVE 2 /**< SO_KEEPALIVE, with the first probe after 210 idle seconds */
#define KEL_NET_LINGER 4    /**< closing waits up to a second for what was sent (SO_LINGER) */
/** @} */

/** @name Results of NetReadReply()
 * @{ */
#define KEL_NET_REPLY_OK 0        /**< a line was read */
#define KEL_NET_REPLY_ERROR 1     /**< an error, or the peer closed before any data */
#define KEL_NET_REPLY_EXPIRED 2   /**< nothing came for 60 seconds */
#define KEL_NET_REPLY_CUT 3       /**< the peer closed in mid-line */
#define KEL_NET_REPLY_TOO_SHORT 4 /**< the line has fewer than 2 characters */
#define KEL_NET_REPLY_TOO_LONG 5  /**< 16382 characters came without an end of line */
/** @} */

/** Bytes for a reply, terminator included. */
#define KEL_NET_REPLY_SIZE 16384
/** Names of peers that are remembered at most; a few megabytes. */
#define KEL_NET_CACHED_NAMES 10000

KEL_BEGIN_DECLS

/**
 * A listening service with its current peer, or the client's end of one connection.
 *
 * Those of the setup functions are released with NetClose(). A client may use one of its own, all
 * zero but for what it needs; then it closes the connection itself.
 */
typedef struct NetContext {
  char* bindHost;     /**< "0.0.0.0" after a setup function; owned */
  char* allowedPeers; /**< IP range text (kel/iprange.h) of the peers that may come in; null or
                         empty: all. From malloc(); set by the caller, freed by NetClose() */
  int timeout;        /**< seconds that a wait takes at most, for input (0: see NetCheckForInput())
                         and for a peer (0 or less: without limit) */
  NetInterface** interfaces; /**< addresses that the service serves, ending in null; owned */
  int interfaceCount;
  int* listenSockets; /**< listening descriptors, one or two; owned */
  int socketCount;
  int highestDescriptor; /**< the largest of them */
  int connection;        /**< descriptor of the accepted peer; -1: none */
  uint16_t port;         /**< listening port; what the system chose when 0 was asked for */
  char replyBuffer[KEL_NET_REPLY_SIZE]; /**< the last line of NetReadReply(), terminated */

  /** Not 0: peers are told to come later. Set by the caller, from any thread or signal handler. */
  uint16_t shuttingDown;
  char remoteHost[257]; /**< name of the accepted peer, cut; or "<unknown host>" */
  uint16_t remotePort;  /**< its port; 0xFFFF for an unknown family */
  /** Seconds after which all names of peers are forgotten; 0 remembers none. Set by the caller. */
  unsigned int cacheClearInterval;
  /** Called when a wait for a peer expires; -1 ends the wait. May be null; set by the caller. */
  int (*idleCallback)(void* idleData);
  void* idleData; /**< handed to the callback */
} NetContext;

/** How NetConnectByAddr() connects. All zero is a plain connection. */
typedef struct NetConnectOptions {
  int flags;                                    /**< KEL_NET_... bits */
  unsigned int sendBuffer;                      /**< SO_SNDBUF in bytes; 0: the system's */
  unsigned int receiveBuffer;                   /**< SO_RCVBUF in bytes; 0: the system's */
  char localInterface[KEL_INTERFACE_TEXT_SIZE]; /**< name or address to connect from; empty: any */
  char routeTarget[KEL_INTERFACE_TEXT_SIZE];    /**< IPv4 address to reach through a host route */
  /** Local address and name of the interface of that route: it is used when both are given. */
  char routeInterfaceAddress[KEL_INTERFACE_TEXT_SIZE];
  char routeInterfaceName[KEL_INTERFACE_TEXT_SIZE]; /**< see there */
} NetConnectOptions;

/**
 * Gives a socket the library's options: TCP_NODELAY and what `flags` asks for, the buffer sizes
 * unless 0, and TCP_SYNCNT 4, with which a connection attempt gives up after about half a minute.
 * An option that the socket does not take is a warning.
 *
 * @return 0; -1 with EINVAL when `sock` is -1
 */
KEL_API int NetSetSocketOptions(int sock, int flags, unsigned int sndbuf, unsigned int rcvbuf);

/** @name Services
 * @{ */
/**
 * Makes listening sockets (backlog 1024, SO_REUSEADDR and SO_REUSEPORT) on a port.
 *
 * With `sock_b` the addresses for IPv6 are tried first: a socket there serves IPv4 too, where the
 * host lets it (net.ipv6.bindv6only), and no second one is made. What fails on one address is told
 * at the information level, and the next is tried. Names are resolved here even where there is a
 * NAT proxy.
 *
 * @param host    name or address to listen on; null or empty: all addresses
 * @param port    0 lets the system choose
 * @param sock_a  receives the IPv6 socket, or the IPv4 one when `sock_b` is null; -1: none
 * @param sock_b  receives the IPv4 socket, or -1; null: IPv4 only
 * @return 0 when there is a socket; -1: EINVAL for a null `sock_a` or a port above 65535, a host
 *         that cannot be resolved, or no address that could be listened on
 */
KEL_API int NetBindAndListen(const char* host, unsigned int port, int* sock_a, int* sock_b);
/** A context that listens on all addresses, with one interface record ("noiprange", "0.0.0.0");
 * null on failure. */
KEL_API NetContext* NetSetupLocal(unsigned int port);
/**
 * A context that listens on all IPv4 addresses and whose interfaces are the local ones in a range.
 *
 * For good and for the whole host, it makes the kernel answer ARP for an address only on the
 * interface that carries it: net.ipv4.conf.all.arp_ignore=1 and arp_announce=2, by sysctl(8), and
 * in /etc/sysctl.conf, which a shell does. Without the privilege the context works all the same.
 *
 * @return null for a null or empty range (not reported), for one that is wrong or has no local
 *         address, or when listening fails
 */
KEL_API NetContext* NetSetupFromIPRange(const char* iprange, unsigned int port);
/** NetSetupFromIPRange(), or NetSetupLocal() where that gives nothing. */
KEL_API NetContext* NetSetup(const char* iprange, unsigned int port);
/** Closes the sockets and the connection of a context and frees it. `errno` is kept. */
KEL_API void NetClose(NetContext* ctx);
/**
 * Waits for a peer that may come in: finds its name and port (`remoteHost`, `remotePort`), and
 * gives its socket keep-alive (first probe after 210 idle seconds) and a closing that waits up to
 * 5 seconds for what was sent.
 *
 * - An IPv4 peer must lie in `allowedPeers`, by NetCheckIPRange(); an IPv4-mapped IPv6 address, as
 *   peers have that come through a socket for both, is that IPv4 address. A mistake in the text
 *   refuses all but those that an element before it lets in. Other IPv6 peers come in whatever the
 *   range is: a service with a range listens on IPv4 alone to keep them out. What is refused gets
 *   the line "ABRT  Access Denied" and a record at the authentication level, and the wait goes on.
 * - With `shuttingDown` set, the next peer that may come in is sent away with the line
 *   "BYE  Service Shutting Down, try again later", and the wait ends. Nothing else looks at the
 *   flag: let `idleCallback` end the wait when no peer comes, or a signal.
 * - `idleCallback` is called when `timeout` has passed without a peer, each time.
 *
 * The name comes from a reverse lookup, which takes as long as it takes, for refused peers too; a
 * peer without a name is reported and comes in. The first lookup above 3 seconds, also one without
 * result, turns on a cache (#g_DNS_Cache) for the whole process.
 *
 * The listening sockets are made non-blocking, which is seen by other processes that share them:
 * so a peer that has gone when its turn comes, or was taken by another process, holds up nobody.
 *
 * @return the connected, blocking socket, also in `connection`: whoever closes it, or hands it on,
 *         sets that to -1 before NetClose(). -1 when the wait ended, with nobody accepted, not
 *         reported but by traces:
 *         - EINTR: a signal came while it waited
 *         - ECANCELED: the callback ended it; ESHUTDOWN: a peer was told to come later
 *         - ECONNABORTED and network errors (accept(2)): that peer was lost; call again
 *         - EMFILE, ENFILE, ENOBUFS, ENOMEM: there is no descriptor or memory for the peer, who
 *           waits in the queue. Returns after a tenth of a second, so that calling again is no
 *           busy loop.
 *         - EBADF, EINVAL: a listening socket, or the context, cannot be used
 */
KEL_API int NetWaitForRemote(NetContext* ctx);
/** @} */

/** @name Names of peers
 * Unguarded: for the thread that waits for peers. @{ */
/** Whether names are remembered. Off at first; on after a slow lookup; off when a peer's address
 * has no text. */
extern KEL_API bool g_DNS_Cache_enabled;
/** Lookups that took more than 3 seconds. */
extern KEL_API unsigned int g_found_DNS_slow_count;
/** @} */

/** @name Clients
 * @{ */
/**
 * Connects to the first address of a list that answers.
 *
 * Each address is tried from each address of the local interface, if one is named (when it cannot
 * be resolved, from any). A host route is added before the attempt and deleted when that fails,
 * each only where it makes a difference (NetAddRoute()); after a success it stays. The local
 * interface is resolved here even where there is a NAT proxy. An entry for such a proxy is
 * connected through it, with the socket options but from any local address, as
 * NetConnectByAddr4Cvnet() does.
 *
 * An attempt that nobody answers ends after about half a minute (NetSetSocketOptions()), so a list
 * takes at most that long for each pair of addresses.
 *
 * @param opts  may be null
 * @return the socket, blocking, owned by the caller; -1 with the error of the last attempt (not
 *         ENETUNREACH, if there was another). When an attempt was made, the thread's fatal error
 *         record (kel/library.h) names the service ("chunkd" for port 10082, else "vaultd"), the
 *         port and the addresses, or the relay.
 */
KEL_API int NetConnectByAddr(const tq_addrinfo* addrs, const NetConnectOptions* opts);
/**
 * Connects to a destination through a SOCKS5 relay (RFC 1928, no authentication), both named by the
 * `cvnetinfo` of the entry. The relay resolves the destination, and must answer with a host name.
 *
 * The relay has 120 seconds for the whole handshake: its own connection attempt lies in there.
 *
 * @return the socket, blocking, owned by the caller; -1: EINVAL for a null argument, a host that is
 *         empty or has more than 255 characters, a port that is none; EHOSTUNREACH when the relay's
 *         name cannot be resolved; ECONNREFUSED when the relay refuses, ECONNRESET when it closes,
 *         ETIMEDOUT, EPROTO when it answers with something else; else the error of the call
 */
KEL_API int NetConnectByAddr4Cvnet(const tq_addrinfo* addr);
/** @} */

/** @name Lines
 * @{ */
/**
 * Sends one line: the formatted text, cut at 1022 characters, and LF.
 *
 * A peer that has gone raises SIGPIPE unless that is ignored, as after NetReadReply(). Writes to a
 * descriptor that is no socket.
 *
 * @return the bytes that were taken, which are the whole line on a blocking socket; -1
 */
KEL_API int NetSend(int sock, const char* format, ...) KEL_PRINTF(2, 3);
/**
 * Reads one line from the context's connection into its reply buffer, which is cleared first. What
 * follows the line stays in the socket, for whoever reads next.
 *
 * A line ends with LF behind a CR: behind any CR of that line. CRs and NULs are dropped; an LF
 * without a CR before it belongs to the text. The time limit is for each wait, so a slow sender is
 * followed for as long as something comes every 60 seconds. A line that came before the connection
 * broke is still read.
 *
 * Costs three system calls for a line that is there, and two for each wait; a descriptor that is no
 * socket is read byte by byte.
 *
 * Changes what the whole process does on SIGPIPE: caught while the call waits, ignored after it,
 * but left caught after the results 2 and 5. That replaces the program's own handler, for all
 * threads; being ignored passes on to programs that are started.
 *
 * @return a `KEL_NET_REPLY_` value, 0 to 5. The buffer holds what was read so far with each. With
 *         1 `errno` is the reason, ECONNRESET when the peer closed.
 */
KEL_API int NetReadReply(NetContext* ctx);
/**
 * Waits until there is something to read, or the peer closed.
 *
 * @param timeout_ms  0: 60, then 120, then 240 seconds, each expiry with a warning, then for ever
 * @return 1; 0 when the time is up (ETIMEDOUT, reported); -1 with EPIPE for an invalid descriptor,
 *         else the connection's error
 */
KEL_API int NetSelect(int sock, unsigned int timeout_ms);
/** NetSelect() on the context's connection with its `timeout`, where 0 or less is the default
 * policy; 1 when there is something to read, else 0. */
KEL_API int NetCheckForInput(NetContext* ctx);
/** @} */

/**
 * The numeric address of an IPv4 or IPv6 socket address.
 *
 * @param buf  receives the text (INET6_ADDRSTRLEN bytes always do), "Unknown AF" for others
 * @return `buf`; null, not reported: EAFNOSUPPORT, EINVAL for a null argument, ENOSPC
 */
KEL_API const char* get_ip_str(const struct sockaddr* sa, char* buf, size_t len);

/** @name For programs that run on other systems too
 * Sockets need no start here: both do nothing. @{ */
KEL_API int NetStart(void); /**< 0 */
KEL_API void NetStop(void); /**< see there */
/** @} */

KEL_END_DECLS

#ifdef __cplusplus
/** Names by the text of the address, #KEL_NET_CACHED_NAMES at most: when it is full, a neighbour in
 * the order of the texts gives way. Emptied as `cacheClearInterval` says. */
extern KEL_API std::map<std::string, std::string> g_DNS_Cache;
#endif

#endif
