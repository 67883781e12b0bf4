/* lwIP without threads, for one PPP link over serial bytes: IPv4, ICMP, UDP. */
#pragma once

#define NO_SYS 1
#define SYS_LIGHTWEIGHT_PROT 0
#define LWIP_NETCONN 0
#define LWIP_SOCKET 0
#define MEM_LIBC_MALLOC 1
#define MEM_ALIGNMENT 8
#define PBUF_POOL_SIZE 256
#define LWIP_ARP 0
#define LWIP_ETHERNET 0
#define LWIP_TCP 0
#define LWIP_UDP 1
#define LWIP_RAW 1
#define IP_REASSEMBLY 0
#define IP_FRAG 0

#define PPP_SUPPORT 1
#define PPPOS_SUPPORT 1
#define PAP_SUPPORT 1
#define CHAP_SUPPORT 1
#define VJ_SUPPORT 0
#define PPP_IPV6_SUPPORT 0
