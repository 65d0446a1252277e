/* SPDX-License-Identifier: MIT */
/**
 * @file socket.h
 * IPv4 UDP and TCP sockets whose every wait has a time-out, and the addresses of this device.
 *
 * Addresses and ports - also those handed out, and the local port of AppSocketCalNATAddr() - are in
 * network byte order: use AppConvertHtons().  Time-outs are milliseconds; 0 waits without limit
 * (30 seconds for a connect).  A signal does not end a wait, one without limit neither: it goes on
 * once the signal's handler has returned.  Who must be able to end a wait gives a time-out, looks
 * at a flag and waits again.
 *
 * The data operations return the number of bytes, -1 for any failure and -2 when the time-out has
 * expired.  With a time-out only the wait blocks, never the transfer; a socket that is ready and
 * yet would block is tried again with pauses of up to 10 ms.  A send may take fewer bytes than
 * given: the rest is the caller's to send.  A peer that is gone makes a send fail with -1; no
 * SIGPIPE is raised.  After a -1 errno tells the cause: 0 for a datagram without bytes, sent or
 * received, and for a peer that has closed the connection, else the system's error; a refused
 * argument leaves errno alone.  Descriptors are close-on-exec.
 *
 * Failures of the system are logged with their cause; wrong arguments are refused silently, except
 * for a wrong address family.  One socket may be used by several threads at once, as the system
 * allows, but not after its AppSocketDestroy().
 */
#ifndef APPCORE_SOCKET_H
#define APPCORE_SOCKET_H

#include "appcore/convert.h"
#include "appcore/handles.h"

#ifdef __cplusplus
extern "C" {
#endif

/** Socket kinds. */
enum EAppSocketType {
    APP_SOCKET_UDP = 0, /**< IPv4 datagrams */
    APP_SOCKET_TCP = 1  /**< IPv4 stream */
};

/** Prepares the process for sockets; nothing to do on Linux. */
APP_API void AppSocketStartUp(void);
/** Undoes AppSocketStartUp(). */
APP_API void AppSocketClearUp(void);

/**
 * Creates a socket.
 * @param hMemPool   pool of the record; null is the process heap
 * @param dwSockType ::EAppSocketType
 * @param dwVersion  ::APP_NET_ADDR_IPV4; anything else is refused, logged
 * @return the socket, released with AppSocketDestroy(); null for a bad argument or without memory.
 *         When the system refuses a descriptor the first operation on the socket fails.
 */
APP_API HAppSocket AppSocketCreate(HAppMemPool hMemPool, uint32_t dwSockType, uint32_t dwVersion);

/** Closes and releases a socket.  @param hSocket null does nothing */
APP_API void AppSocketDestroy(HAppSocket hSocket);

/**
 * Binds a socket.
 * @param hSocket     the socket
 * @param ptLocalAddr local address; 0 is every address of the device
 * @param wPort       local port; 0 lets the system choose one
 * @param bReuse      1 sets SO_REUSEADDR
 * @retval APP_OK          bound
 * @retval APP_INVALID_ARG a null argument
 * @retval APP_FAILED      not an IPv4 address, or refused by the system
 */
APP_API uint32_t AppSocketBind(HAppSocket hSocket, const TAppNetAddr *ptLocalAddr, uint16_t wPort,
                               uint32_t bReuse);

/**
 * Receives a datagram.  Every out-parameter but `pdwLen` may be null.
 * @param hSocket      a UDP socket
 * @param pvBuf        receives the data; a longer datagram is cut
 * @param pdwLen       in: room at `pvBuf`; out: bytes received
 * @param dwTimeout    time-out
 * @param ptLocalAddr  receives the address it was sent to: a group's for a multicast datagram
 * @param pwLocalPort  receives the port of the last bind
 * @param ptRemoteAddr receives the sender's address
 * @param pwRemotePort receives the sender's port
 * @return bytes, -1 (also for an empty datagram, with errno 0) or -2
 */
APP_API int32_t AppSocketUDPRecv(HAppSocket hSocket, void *pvBuf, uint32_t *pdwLen,
                                 uint32_t dwTimeout, TAppNetAddr *ptLocalAddr,
                                 uint16_t *pwLocalPort, TAppNetAddr *ptRemoteAddr,
                                 uint16_t *pwRemotePort);

/**
 * Sends a datagram.
 * @param hSocket      a UDP socket
 * @param pvBuf        data
 * @param dwLen        its bytes, not 0
 * @param dwTimeout    time-out
 * @param ptRemoteAddr receiver's address
 * @param wPort        receiver's port
 * @return bytes, -1 or -2
 */
APP_API int32_t AppSocketUDPSend(HAppSocket hSocket, const void *pvBuf, uint32_t dwLen,
                                 uint32_t dwTimeout, const TAppNetAddr *ptRemoteAddr,
                                 uint16_t wPort);

/**
 * Joins a multicast group; joining twice is no failure.
 * @param hSocket     a UDP socket
 * @param ptGroupAddr the group
 * @param ptIfAddr    address of the interface, also for sending; null lets the system choose
 * @param bLoop       1 lets this device receive what it sends
 * @retval APP_OK          joined
 * @retval APP_INVALID_ARG a null argument, a TCP socket or another address family
 * @retval APP_FAILED      refused by the system
 */
APP_API uint32_t AppSocketUDPJoinMulticastGroup(HAppSocket hSocket, const TAppNetAddr *ptGroupAddr,
                                                const TAppNetAddr *ptIfAddr, uint32_t bLoop);

/**
 * Connects to a TCP service.  The socket has TCP_NODELAY and SO_KEEPALIVE set and blocks.  A socket
 * that TCP connected to itself, as may happen on a port of this device where nobody listens, is
 * refused like such a port.
 * @param hMemPool     pool of the record; null is the process heap
 * @param ptRemoteAddr its address
 * @param wPort        its port
 * @param dwTimeout    time-out; 0 is 30000
 * @param ptPeerAddr   receives the peer's address, unless the connection succeeded at once; may be
 *                     null
 * @return the socket, released with AppSocketDestroy(), or null
 */
APP_API HAppSocket AppSocketTCPConnect(HAppMemPool hMemPool, const TAppNetAddr *ptRemoteAddr,
                                       uint16_t wPort, uint32_t dwTimeout, TAppNetAddr *ptPeerAddr);

/** Sends on a connected socket.
 *  @param hSocket a TCP socket  @param pvBuf data  @param dwLen bytes  @param dwTimeout time-out
 *  @return bytes taken, perhaps fewer than given; -1 or -2 */
APP_API int32_t AppSocketTCPSend(HAppSocket hSocket, const void *pvBuf, uint32_t dwLen,
                                 uint32_t dwTimeout);

/** Receives on a connected socket.
 *  @param hSocket a TCP socket  @param pvBuf receives the data
 *  @param pdwLen in: room; out: bytes received  @param dwTimeout time-out
 *  @return bytes; -1, also when the peer has closed the connection, with errno 0; -2 */
APP_API int32_t AppSocketTCPRecv(HAppSocket hSocket, void *pvBuf, uint32_t *pdwLen,
                                 uint32_t dwTimeout);

/**
 * Finds the local address through which the system reaches a remote one, IPv4 or IPv6.  Nothing is
 * sent.
 * @param ptRemoteAddr the remote address
 * @param ptLocalAddr  receives the local one; may be the same record
 * @retval APP_OK          found
 * @retval APP_INVALID_ARG a null argument or an unknown family; logged
 * @retval APP_FAILED      no route, or refused by the system
 */
APP_API uint32_t AppSocketCalLocalAddr(const TAppNetAddr *ptRemoteAddr, TAppNetAddr *ptLocalAddr);

/**
 * Finds the address and port under which a peer reaches a service of this device: the local ones,
 * or, for a peer outside the local subnet, those of the port mapping in force.  Asks the host
 * application, see host.h; when that fails, the local address and port stand.
 * @param ptRemoteAddr the peer
 * @param dwProtocol   kind of the service's socket, ::EAppSocketType
 * @param wLocalPort   the service's local port, in network byte order like the mappings
 * @param ptNatAddr    receives the address; may be the same record as `ptRemoteAddr`
 * @param pwNatPort    receives the port; may be null
 * @retval APP_OK          the local address was found, whatever the host answered
 * @retval APP_INVALID_ARG a null argument
 * @retval APP_FAILED      the local address was not found
 */
APP_API uint32_t AppSocketCalNATAddr(const TAppNetAddr *ptRemoteAddr, uint32_t dwProtocol,
                                     uint16_t wLocalPort, TAppNetAddr *ptNatAddr,
                                     uint16_t *pwNatPort);

#ifdef __cplusplus
}
#endif

#endif
