/**
 * @file
 * Addresses of hosts: resolution with patience, and questions about who is who.
 *
 * All names are resolved through tq_getaddrinfo(): getaddrinfo(3) that tries again while the
 * resolver says "later", answers with a list of the library's own, and knows the NAT proxy. Where
 * the product configuration file names such a proxy, nothing is resolved here: the answer is one
 * entry without an address whose relay record tells the connecting functions of kel/net.h to go
 * through the proxy with SOCKS5. Two things follow on such a host: CanLookupHost() believes every
 * name, and the questions about local hosts see no address to compare.
 *
 * Services are port numbers in decimal, never names. Resolution blocks for as long as the system's
 * resolver does, up to three times, with a second between.
 *
 * Addresses that sockets are bound to (kel/net.h) are resolved without that question, as a host
 * with a proxy has services of its own.
 *
 * Failures of resolution are EAI_* codes for gai_strerror(3); other results are told with each
 * function. Thread-safe: the settings of the proxy are shared under a lock of their own.
 *
 * @code
 * char host[256];
 * unsigned int port;
 * NetExtractHostAndPort("[fe80::1]:443", host, sizeof host, &port);   // "fe80::1" and 443
 * tq_addrinfo *list;
 * if (tq_getaddrinfo(host, "443", NULL, &list) == 0) {
 *   int sock = NetConnectByAddr(list, NULL);
 *   tq_freeaddrinfo(list);
 * }
 * @endcode
 */
#ifndef KEL_ADDRESS_H
#define KEL_ADDRESS_H

#include <kel/export.h>

#include <netdb.h>
#include <stdbool.h>
#include <stddef.h>
#include <sys/socket.h>

KEL_BEGIN_DECLS

struct addrinfo; /* strict C11 hides it in <netdb.h> */

/** Where a relayed connection goes, and through which proxy; texts end within their fields. */
typedef struct cvnetinfo {
  char desthost[256];   /**< the host that was asked for */
  char destport[10];    /**< the port that was asked for, in decimal */
  char cvlinkhost[256]; /**< the proxy */
  char cvlinkport[10];  /**< its port */
} cvnetinfo;

/** An address in a list, or a destination behind a proxy. The entry owns what it points to. */
typedef struct tq_addrinfo {
  int flags;    /**< as in struct addrinfo, like the next three */
  int family;   /**< AF_INET or AF_INET6; 0 in the entry for a proxy */
  int socktype; /**< SOCK_STREAM */
  int protocol;
  socklen_t addrlen;           /**< bytes at `addr` */
  char* canonname;             /**< canonical name, where the resolver gave one; else null */
  struct sockaddr* addr;       /**< null in the entry for a proxy */
  struct tq_addrinfo* next;    /**< null in the last entry */
  struct cvnetinfo* cvnetinfo; /**< null but in the entry for a proxy */
} tq_addrinfo;

/** @name Lists
 * @{ */
/**
 * Resolves `host` and `service` into a list that the caller frees with tq_freeaddrinfo().
 *
 * EAI_AGAIN, and EAI_SYSTEM with `errno` EAGAIN, are tried again after a second, twice at most and
 * for no longer than 30 seconds after the first try; each time is reported. Other failures come
 * back at once, and only as a trace line.
 *
 * @param host     a name or a numeric address; null for the wildcard or loopback address
 * @param service  a port in decimal; null for none
 * @param hints    as for getaddrinfo(3); SOCK_STREAM and AI_NUMERICSERV are forced. May be null
 * @param res      receives the list, or null on failure
 * @return 0 or an EAI_* code: EAI_FAIL for a null `res` (EINVAL, reported), EAI_MEMORY when the
 *         list could not be copied (reported)
 */
KEL_API int tq_getaddrinfo(const char* host, const char* service, const struct addrinfo* hints,
                           tq_addrinfo** res);
/**
 * Makes the entry for a destination behind a proxy. Texts are cut to their fields; null counts as
 * empty. Returns 0, EAI_FAIL for a null `res`, or EAI_MEMORY, both reported.
 */
KEL_API int tq_getaddrinfo4cvnet(const char* desthost, const char* destport, const char* cvlinkhost,
                                 const char* cvlinkport, tq_addrinfo** res);
/** Frees every entry with what it owns; null is ignored. `errno` is kept. */
KEL_API void tq_freeaddrinfo(tq_addrinfo* list);
/**
 * Copies a list with all that its entries own.
 *
 * @param dst  receives the copy, for tq_freeaddrinfo(), or null on failure
 * @return 0; -1 with EINVAL for a null argument or ENOMEM, both reported
 */
KEL_API int tq_copyaddrinfo(const tq_addrinfo* src, tq_addrinfo** dst);
/** @} */

/**
 * The NAT proxy of this host, from the lines "NAT_QXPROXY_HOST = ..." and "NAT_QXPROXY_PORT = ..."
 * of /usr/quorv/brelvox/vq.conf. The last line of each kind wins; an empty value counts as none.
 *
 * The file is read at most once in 120 seconds, by whoever asks first after that time; a file that
 * cannot be opened is reported at each reading and means no proxy, one setting without the other
 * is reported and means none either.
 *
 * @param host,port        receive the settings as far as they are known, cut (and that reported)
 *                         where they do not fit
 * @param hostlen,portlen  capacities in bytes: 256 and 10 hold everything
 * @return whether both are known
 */
KEL_API bool get_nat_qxproxy(char* host, int hostlen, char* port, int portlen);

/** @name Which host is it?
 * Two lists mean the same host when they share a canonical name (in any case) or an address, or
 * when both have an address of this host. An address is of this host when a socket can be bound to
 * it, so the wildcard addresses are, and all are where the kernel allows binding to foreign ones
 * (net.ipv4.ip_nonlocal_bind).
 *
 * Return 1 for yes and 0 for no; the forms that take names -1 when one is null or empty (EINVAL)
 * or cannot be resolved, which is reported. @{ */
KEL_API int NetSameHostByName(const char* name1, const char* name2);
/** A null list is nobody's. */
KEL_API int NetSameHostByAddr(const tq_addrinfo* a, const tq_addrinfo* b);
KEL_API int NetIsHostLocalByName(const char* name);
/** Whether any entry is of this host. */
KEL_API int NetIsHostLocalByAddr(const tq_addrinfo* list);
/** @} */

/**
 * Splits "host", "host:port", an IPv6 address, or "[IPv6 address]:port", each perhaps with a path
 * or query behind it ('/' or '?'), which is dropped. With several colons a port is recognised only
 * behind "]:"; brackets without a port stay part of the host.
 *
 * @param input    of at most 4095 characters; what is longer is cut and reported
 * @param host     receives the host, cut and reported where it does not fit
 * @param hostlen  capacity of `host` in bytes
 * @param port     receives the port; 0 for none, or for one that is no 16-bit number. May be null
 */
KEL_API void NetExtractHostAndPort(const char* input, char* host, size_t hostlen,
                                   unsigned int* port);
/** Whether the host part of `input`, taken as above, can be resolved; failures are reported. */
KEL_API bool CanLookupHost(const char* input);

KEL_END_DECLS

#endif
