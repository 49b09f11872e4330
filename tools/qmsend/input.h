// The records of several files, or of standard input, one after the other.
#ifndef QMLOGCACHE_TOOLS_QMSEND_INPUT_H_
#define QMLOGCACHE_TOOLS_QMSEND_INPUT_H_

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

#include "tools/qmsend/record_reader.h"

class CInput {
 public:
  using Complaint = std::function<void(const std::string&)>;

  // "-" is standard input. fnComplain gets a line for every file that cannot be opened or read to its end; the others
  // are read all the same.
  CInput(std::vector<std::string> vecFiles, RecordMode mode, size_t uMaxRecord, Complaint fnComplain);
  ~CInput();
  CInput(const CInput&) = delete;
  CInput& operator=(const CInput&) = delete;

  // NeedInput: call Read, after Descriptor() has become readable unless IsAlwaysReady().
  CRecordReader::Step Next(Record& record);
  void Read();
  int Descriptor() const { return m_iDescriptor; }
  bool IsAlwaysReady() const { return m_bRegular; }
  // The file of the last record, as an index, and what to call it.
  size_t Source() const { return m_uSource; }
  const std::string& SourceName(size_t uSource) const { return m_vecNames[uSource]; }
  // One line for each file that has not been read to its end.
  std::vector<std::string> Unread() const;
  bool HadErrors() const { return m_bErrors; }

 private:
  bool Open();
  void CloseSource();
  void Complain(const std::string& strText);

  const std::vector<std::string> m_vecFiles;
  std::vector<std::string> m_vecNames;
  CRecordReader m_reader;
  const Complaint m_fnComplain;
  size_t m_uSource = 0;  // the open file, or the next one
  int m_iDescriptor = -1;
  bool m_bRegular = false;
  bool m_bErrors = false;
};

// A reason when a file cannot be read at all: for a complaint before anything is sent. Empty when all is well.
std::string FindUnreadableFile(const std::vector<std::string>& vecFiles);

#endif  // QMLOGCACHE_TOOLS_QMSEND_INPUT_H_
