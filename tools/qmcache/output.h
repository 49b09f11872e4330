// What the program prints: records on a descriptor, complaints on standard error.
#ifndef QMLOGCACHE_TOOLS_QMCACHE_OUTPUT_H_
#define QMLOGCACHE_TOOLS_QMCACHE_OUTPUT_H_

#include <cstddef>
#include <string>
#include <string_view>

// Thrown when whoever reads the output has gone; not an error. Caught by main alone.
struct ReaderGone {};

// Buffered. Every function throws ReaderGone, Interruption, or std::system_error when the output cannot be written.
class COutput {
 public:
  // Standard output.
  COutput();
  // A file, which is written beside that name and gets it in Finish: until then an earlier file of the name stays as it
  // is, and without Finish it does for good. A pipe or a character device is written at once; "-", and whatever else
  // names it, is standard output.
  explicit COutput(const std::string& strPath);
  // Does not write what is still buffered: that is Finish's, which can fail.
  ~COutput();
  COutput(const COutput&) = delete;
  COutput& operator=(const COutput&) = delete;

  // The buffer; whole lines are appended here, then EndLine is called.
  std::string& Buffer() { return m_strBuffer; }
  // Writes when enough is buffered.
  void EndLine();
  void Line(std::string_view svText);
  // Writes what is buffered; of a file of its own also to the disk, and gives it its name.
  void Finish();
  bool IsFinished() const { return m_bFinished; }
  bool IsStandardOutput() const { return !m_bOwned; }
  bool IsTerminal() const;

 private:
  void Flush();
  void OpenDirectly();
  void MakeTemporary();

  int m_iDescriptor;
  bool m_bOwned = false;
  bool m_bFinished = false;
  std::string m_strTemporary;  // the file until it gets its name; empty: there is none
  std::string m_strName;
  std::string m_strBuffer;
};

// "qmcache: " and the text, made printable, on standard error; a progress bar that is shown there is taken away first.
void Complain(std::string_view svText);

#endif  // QMLOGCACHE_TOOLS_QMCACHE_OUTPUT_H_
