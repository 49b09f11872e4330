// Base64 by RFC 4648: standard alphabet, padding, no line breaks.
#ifndef QMLOGCACHE_PLATFORM_BASE64_H_
#define QMLOGCACHE_PLATFORM_BASE64_H_

extern "C" {
// Both return a newly allocated, zero-terminated text that the caller releases with free, or null on failure (null
// pData with iLength > 0, negative iLength, no memory; for decoding also malformed input). An empty input gives the
// empty text. iReserved is 0. Decoded bytes may themselves hold zero bytes.
char* base64Encode(const char* pData, int iLength, int iReserved);
char* base64Decode(const char* pData, int iLength, int iReserved);
}

#endif  // QMLOGCACHE_PLATFORM_BASE64_H_
