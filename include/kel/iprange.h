/**
 * @file
 * IPv4 ranges, local interfaces and routes.
 *
 * **Range text.** Elements separated by commas, with blanks (spaces and tabs) around them ignored.
 * An element is a dotted IPv4 address and, behind a slash, the length of the network prefix, 0 to
 * 32. It is read in two forms:
 *
 * - the list form, iprange_list_create() and everything that names local addresses: four fields;
 *   bits behind the prefix are cleared; without a prefix an element is one host (/32), at most
 *   16 characters long.
 * - the access form, NetCheckIPRange(): one to four fields; without a prefix the fields tell it
 *   (10.1 is 10.1.0.0/16), and bits behind the prefix are refused.
 *
 * | Element | List form | Access form |
 * |---|---|---|
 * | 10.0.0.0/8 | 10.0.0.0/8 | 10.0.0.0/8 |
 * | 10.1.2.3 | the host | the host |
 * | 10.1 | refused | 10.1.0.0/16 |
 * | 10.1.2.3/16 | 10.1.0.0/16 | refused |
 *
 * In both forms a field is decimal without leading zeros, which other software takes for octal; an
 * empty element, as behind a comma at the end, is refused, and one bad element refuses the text.
 *
 * Routes and default gateways belong to the whole host, or to the network namespace of the calling
 * thread; changing them needs CAP_NET_ADMIN.
 *
 * Failures are reported, with `errno` set, unless a function says otherwise.
 *
 * Threads: no shared state. A range list and an interface list belong to one thread at a time;
 * iprange_list_lookup() may be called from several as long as none of them changes the list.
 *
 * @code
 * if (!NetCheckIPRange("10.1, 192.168.0.0/24", NULL, true)) return -1;     // a mistake in the text
 * if (!NetCheckIPRange("10.1, 192.168.0.0/24", peer, false)) refuse(peer);
 *
 * NetInterface **list = NetGetIPAddrListFromIPRange("10.0.0.0/8");
 * for (size_t i = 0; list != NULL && list[i] != NULL; ++i) puts(list[i]->address);
 * NetFreeIfaceList(list);
 * @endcode
 */
#ifndef KEL_IPRANGE_H
#define KEL_IPRANGE_H

#include <kel/array.h>
#include <kel/export.h>

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>

/** Room for a dotted IPv4 address, terminator included. */
#define KEL_IPRANGE_TEXT_SIZE 16
/** Room for the name or the address of an interface, terminator included. */
#define KEL_INTERFACE_TEXT_SIZE 257

KEL_BEGIN_DECLS

/** An IPv4 network. */
typedef struct iprange_t {
  uint32_t mask;                    /**< the bits of the prefix, host order; 0 for /0 */
  uint32_t network;                 /**< the address, ANDed with the mask, host order */
  char text[KEL_IPRANGE_TEXT_SIZE]; /**< the network as dotted text, without the prefix */
} iprange_t;

/** A list (kel/array.h) whose elements are `iprange_t *`, in the order of the text. */
typedef kelList iprange_list_t;

/** A local IPv4 address and the interface that carries it. */
typedef struct NetInterface {
  char name[KEL_INTERFACE_TEXT_SIZE]; /**< as in "eth0"; an address with a label has that label */
  char address[KEL_INTERFACE_TEXT_SIZE]; /**< dotted */
} NetInterface;

/** @name Ranges
 * @{ */
/** Clears a record: no mask, which matches every address, and an empty text. */
KEL_API void iprange_init(iprange_t* range);
/**
 * Reads one element in the list form, but with a prefix length in any case: "10.1.2.3/16".
 *
 * @return for iprange_destroy(); null with EINVAL or ENOMEM
 */
KEL_API iprange_t* iprange_create(const char* element);
/** Frees a record; null is ignored. */
KEL_API void iprange_destroy(iprange_t* range);
/** The prefix length behind the slash of `element`, 0 to 32, digits only; else -1 with EINVAL. The
 * address before the slash is not looked at. */
KEL_API int getmasklen(const char* element);
/** @} */

/** @name Range lists
 * @{ */
/** Reads a range text in the list form. For iprange_list_destroy(); null with EINVAL, for an empty
 * text too, or ENOMEM. */
KEL_API iprange_list_t* iprange_list_create(const char* rangeText);
/** Appends `range`, which the list then owns; 0, or -1 with the list unchanged. */
KEL_API int iprange_list_add(iprange_list_t* list, iprange_t* range);
/**
 * The first record whose network contains an address.
 *
 * @param list     keeps its walk: the cursor of kelListNext() is not moved
 * @param address  host order
 * @return owned by the list; null with ENOENT, not reported, when there is none
 */
KEL_API const iprange_t* iprange_list_lookup(const iprange_list_t* list, uint32_t address);
/** Frees the list and its records; null is ignored. */
KEL_API void iprange_list_destroy(iprange_list_t* list);
/** @} */

/**
 * Tells whether an address may come in: whether it lies in one of the ranges of a text in the
 * access form.
 *
 * Takes nothing from the heap and no lock; a call costs one pass over the text, up to the element
 * that matches. What stands behind that element is not looked at, so check a configured text once
 * as a whole, with a null `ip`, before it is put to use.
 *
 * @param rangeText  null or empty: no restriction
 * @param ip         four fields; null to check the text alone
 * @param report     report why the answer is no: the mistake, or each range that did not match
 * @return true when `ip` matches, or is null and the text is valid; false with EINVAL otherwise
 */
KEL_API bool NetCheckIPRange(const char* rangeText, const char* ip, bool report);
/** 1 when the text, in the list form, is one range of one host; 0 when it is anything else; -1 when
 * it cannot be read. */
KEL_API int NetIsSingleIP(const char* rangeText);

/** @name Local interfaces
 * Lists end in a null pointer and are freed by NetFreeIfaceList(). The addresses are those that the
 * kernel lists for IPv4 (SIOCGIFCONF): of every interface that has one, the loopback included,
 * whether the interface is up or not. An interface with several addresses is there once for each.
 * A list that would be empty is null, with ENOENT and no report. @{ */
/** The local interfaces: all, or those with one address, or those of one name. A `filter` that
 * begins with a digit is an address; null stands for all. */
KEL_API NetInterface** NetGetIfaceList(const char* filter);
/** Frees a list; null is ignored. */
KEL_API void NetFreeIfaceList(NetInterface** list);
/** `count` cleared records and the ending null, as one block; null with ENOMEM. */
KEL_API NetInterface** iflist_create(size_t count);
/** As NetFreeIfaceList(). */
KEL_API void iflist_destroy(NetInterface** list);
/** The local interfaces whose address lies in a range of the list. */
KEL_API NetInterface** NetGetIPAddrList(const iprange_list_t* list);
/** As NetGetIPAddrList(), from the text. */
KEL_API NetInterface** NetGetIPAddrListFromIPRange(const char* rangeText);
/** Prints every local interface, a line each: its name, a tab, its address. A null `out` is the
 * standard output. 0; -1 when there is no interface or the list cannot be had. */
KEL_API int NetGetIfaceAddr(FILE* out);
/** Copies the address of `iface` to `buf`, which holds `len` bytes; 0, or -1 with EINVAL for a null
 * argument and ENOBUFS when it was cut. */
KEL_API int NetGetIfaceAddr_r(const NetInterface* iface, char* buf, size_t len);
/** @} */

/**
 * Finds the local interface that carries the one address of a single-host range.
 *
 * @param ip      receives the address; `iplen` bytes
 * @param ifname  receives the interface's name; `ifnamelen` bytes
 * @return 0; -1: EINVAL for a null argument or a text that is no single host, EADDRNOTAVAIL when no
 *         interface has the address, ENOBUFS when a text was cut
 */
KEL_API int NetGetIFFromIPRange(const char* rangeText, char* ip, size_t iplen, char* ifname,
                                size_t ifnamelen);
/**
 * Picks one of the local addresses inside a range, each as likely as the others, with the library's
 * random generator (kel/runtime.h).
 *
 * @param ip  receives the address; `iplen` bytes, #KEL_IPRANGE_TEXT_SIZE always do
 * @return 0; -1: EINVAL for a null or empty argument or a bad text, ENOENT when no local address
 *         lies inside, ENOBUFS when the text was cut
 */
KEL_API int NetGetRandomIPFromIPRange(const char* rangeText, char* ip, size_t iplen);

/** @name Host routes
 * Let the traffic to one host leave through one interface. The kernel is asked for its best route
 * to `target`: a route is added only when that one does not leave through `ifname`, and deleted
 * only when it does; otherwise there is nothing to do. The gateway of the best route, if it has
 * one, becomes that of the host route, so it has to be a neighbour of `ifname` too.
 *
 * `target` is dotted; `ifip`, the address of the interface, appears in the trace only and may be
 * null; a label of an address, as in "eth0:1", stands for its interface.
 *
 * 0, or -1: EINVAL for a null argument or a bad target, ENETUNREACH when there is no route to it at
 * all, ESRCH when the best route is none that can be deleted, EPERM without the privilege, and what
 * else the kernel says. @{ */
KEL_API int NetAddRoute(const char* target, const char* ifip, const char* ifname);
KEL_API int NetDelRoute(const char* target, const char* ifip, const char* ifname);
/** @} */

/**
 * Puts the routes of an interface that came up beside another one in order. In the main IPv4 table:
 *
 * - each route that leaves through `ifname` without a gateway is deleted and added again as it was,
 *   and so comes first among its equals;
 * - each default route through a gateway on another interface moves to `ifname`, with its gateway
 *   and its priority, when the two interfaces have the same broadcast address. The old one is
 *   deleted only after the new one is there.
 *
 * Routes over several next hops, or over next-hop objects, are left alone.
 *
 * @param ifname  an interface that does not exist has no routes to put in order: 0
 * @return 0; -1 for a null argument (EINVAL), without the privilege (EPERM) or when the kernel
 *         refuses a change, with the changes before that one made
 */
KEL_API int NetResetRoutingtable(const char* ifname);
/** NetResetRoutingtable() on the interface that carries the address of a single-host range; -1 as
 * there and as in NetGetIFFromIPRange(). */
KEL_API int NetSetRestoreRoute(const char* rangeText);

KEL_END_DECLS

#endif
