// SPDX-License-Identifier: MIT
//
// The functions that fault injection replaces, a row each: how it tells a failure, its name, then
// what fault.cpp makes its gate of.  wrap.cmake reads the names; each row begins its line.
// No include guard: whoever includes this says what the rows mean.

// Written out in fault.cpp.
OWN(malloc)
OWN(calloc)
OWN(realloc)
OWN(free)
OWN(strdup)
OWN(vasprintf)
OWN(fcntl)

CODE(pthread_create,
     (pthread_t * ptThread, const pthread_attr_t *ptAttr, void *(*pfnEntry)(void *), void *pv),
     (ptThread, ptAttr, pfnEntry, pv))
CODE(pthread_attr_init, (pthread_attr_t * ptAttr), (ptAttr))
CODE(pthread_attr_setinheritsched, (pthread_attr_t * ptAttr, int n), (ptAttr, n))
CODE(pthread_mutex_init, (pthread_mutex_t * ptMutex, const pthread_mutexattr_t *ptAttr),
     (ptMutex, ptAttr))
CODE(pthread_mutex_timedlock, (pthread_mutex_t * ptMutex, const timespec *ptEnd), (ptMutex, ptEnd))
CODE(pthread_mutex_clocklock, (pthread_mutex_t * ptMutex, clockid_t n, const timespec *ptEnd),
     (ptMutex, n, ptEnd))
CODE(pthread_mutexattr_init, (pthread_mutexattr_t * ptAttr), (ptAttr))
CODE(pthread_mutexattr_settype, (pthread_mutexattr_t * ptAttr, int n), (ptAttr, n))
CODE(pthread_cond_init, (pthread_cond_t * ptCond, const pthread_condattr_t *ptAttr),
     (ptCond, ptAttr))
CODE(pthread_cond_signal, (pthread_cond_t * ptCond), (ptCond))
CODE(pthread_cond_timedwait,
     (pthread_cond_t * ptCond, pthread_mutex_t *ptMutex, const timespec *ptEnd),
     (ptCond, ptMutex, ptEnd))
CODE(pthread_condattr_init, (pthread_condattr_t * ptAttr), (ptAttr))
CODE(pthread_condattr_setclock, (pthread_condattr_t * ptAttr, clockid_t n), (ptAttr, n))
INT(clock_gettime, (clockid_t n, timespec *ptNow), (n, ptNow))
PTR(gmtime_r, struct tm, (const time_t *ptTime, struct tm *ptResult), (ptTime, ptResult))
ANY(timegm, time_t, (struct tm * ptTime), (ptTime), WithErrno<time_t>(nError, -1))
PTR(fopen, FILE, (const char *szPath, const char *szMode), (szPath, szMode))
PTR(fdopen, FILE, (int nFd, const char *szMode), (nFd, szMode))
LEN(writev, (int nFd, const iovec *ptPiece, int nCount), (nFd, ptPiece, nCount))
INT(ftruncate, (int nFd, off_t nLen), (nFd, nLen))
INT(rename, (const char *szFrom, const char *szTo), (szFrom, szTo))
INT(socket, (int nDomain, int nType, int nProtocol), (nDomain, nType, nProtocol))
INT(bind, (int nFd, const sockaddr *ptAddr, socklen_t nLen), (nFd, ptAddr, nLen))
INT(connect, (int nFd, const sockaddr *ptAddr, socklen_t nLen), (nFd, ptAddr, nLen))
INT(getsockopt, (int nFd, int nLevel, int nName, void *pvValue, socklen_t *pnLen),
    (nFd, nLevel, nName, pvValue, pnLen))
INT(setsockopt, (int nFd, int nLevel, int nName, const void *pvValue, socklen_t nLen),
    (nFd, nLevel, nName, pvValue, nLen))
INT(getsockname, (int nFd, sockaddr *ptAddr, socklen_t *pnLen), (nFd, ptAddr, pnLen))
INT(getpeername, (int nFd, sockaddr *ptAddr, socklen_t *pnLen), (nFd, ptAddr, pnLen))
INT(epoll_create1, (int nFlags), (nFlags))
INT(epoll_ctl, (int nEpoll, int nOp, int nFd, epoll_event *ptEvent), (nEpoll, nOp, nFd, ptEvent))
INT(epoll_wait, (int nEpoll, epoll_event *ptEvents, int nMost, int nTimeout),
    (nEpoll, ptEvents, nMost, nTimeout))
LEN(recv, (int nFd, void *pvBuf, size_t nLen, int nFlags), (nFd, pvBuf, nLen, nFlags))
LEN(recvmsg, (int nFd, msghdr *ptMsg, int nFlags), (nFd, ptMsg, nFlags))
LEN(send, (int nFd, const void *pvBuf, size_t nLen, int nFlags), (nFd, pvBuf, nLen, nFlags))
LEN(sendto,
    (int nFd, const void *pvBuf, size_t nLen, int nFlags, const sockaddr *ptAddr,
     socklen_t nAddrLen),
    (nFd, pvBuf, nLen, nFlags, ptAddr, nAddrLen))
INT(inet_pton, (int nFamily, const char *szText, void *pvAddr), (nFamily, szText, pvAddr))
PTR(inet_ntop, const char, (int nFamily, const void *pvAddr, char *szText, socklen_t nLen),
    (nFamily, pvAddr, szText, nLen))
INT(getifaddrs, (ifaddrs * *pptList), (pptList))
ANY(iconv_open, iconv_t, (const char *szTo, const char *szFrom), (szTo, szFrom),
    WithErrno(nError, reinterpret_cast<iconv_t>(-1)))
ANY(iconv, size_t, (iconv_t tDesc, char **pszIn, size_t *pnIn, char **pszOut, size_t *pnOut),
    (tDesc, pszIn, pnIn, pszOut, pnOut), WithErrno(nError, static_cast<size_t>(-1)))
PTR(mxmlGetOpaque, const char, (mxml_node_t * ptNode), (ptNode))
PTR(mxmlGetText, const char, (mxml_node_t * ptNode, int *pn), (ptNode, pn))
PTR(mxmlGetCDATA, const char, (mxml_node_t * ptNode), (ptNode))
INT(_AppVsnprintf, (char *szBuf, uint32_t dwSize, const char *szFormat, va_list args),
    (szBuf, dwSize, szFormat, args))
