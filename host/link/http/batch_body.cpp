#include "host/link/http/batch_body.h"

#include <zlib.h>

#include <algorithm>
#include <array>
#include <boost/uuid/name_generator_sha1.hpp>
#include <boost/uuid/string_generator.hpp>
#include <boost/uuid/uuid_io.hpp>
#include <new>

#include "host/link/identified_line.h"

namespace {

// Cheap on the endpoint's processor; log lines shrink to a fifth all the same.
constexpr int kLevel = 3;
constexpr int kGzipWindow = 15 + 16;
constexpr int kMemory = 8;
constexpr size_t kChunk = 64U << 10;
// A buffer that one giant record has blown up is not kept.
constexpr size_t kKeptBufferSize = 8U << 20;

class CDeflate {
 public:
  CDeflate() {
    if (deflateInit2(&m_stream, kLevel, Z_DEFLATED, kGzipWindow, kMemory, Z_DEFAULT_STRATEGY) != Z_OK) {
      throw std::bad_alloc();
    }
  }
  ~CDeflate() { deflateEnd(&m_stream); }
  CDeflate(const CDeflate&) = delete;
  CDeflate& operator=(const CDeflate&) = delete;
  z_stream* Get() { return &m_stream; }

 private:
  z_stream m_stream{};
};

}  // namespace

void Gzip(const std::string& strBytes, std::string& strGzip) {
  CDeflate deflater;
  z_stream* pStream = deflater.Get();
  std::array<unsigned char, kChunk> acOut;
  strGzip.clear();
  size_t uTaken = 0;
  int iResult = Z_OK;
  while (iResult != Z_STREAM_END) {
    if (pStream->avail_in == 0) {
      // zlib counts in 32 bits and takes what it reads as its own to write to, which it does not.
      const size_t uNext = std::min<size_t>(strBytes.size() - uTaken, 1U << 30);
      pStream->next_in = reinterpret_cast<Bytef*>(const_cast<char*>(strBytes.data() + uTaken));
      pStream->avail_in = static_cast<uInt>(uNext);
      uTaken += uNext;
    }
    pStream->next_out = acOut.data();
    pStream->avail_out = static_cast<uInt>(acOut.size());
    iResult = deflate(pStream, uTaken == strBytes.size() ? Z_FINISH : Z_NO_FLUSH);
    strGzip.append(reinterpret_cast<const char*>(acOut.data()), acOut.size() - pStream->avail_out);
  }
}

CBatchBody::CBatchBody(const std::string& strAgentId) : m_strAgentId(strAgentId) {}

void CBatchBody::Make(const LinkRecordList& vecRecords, BatchBody& body) {
  m_strLines.clear();
  for (const auto& pRecord : vecRecords) {
    AppendIdentifiedLine(m_strLines, m_strAgentId, *pRecord, m_recordLine);
  }
  Gzip(m_strLines, body.strGzip);
  const boost::uuids::name_generator_sha1 generator(boost::uuids::string_generator()(m_strAgentId));
  body.strKey = boost::uuids::to_string(generator(m_strLines.data(), m_strLines.size()));
  if (m_strLines.capacity() > kKeptBufferSize) {
    m_strLines = std::string();
  }
}
