// Reads what a 64-bit ELF shared library tells the dynamic linker.
#ifndef QMLOGCACHE_TESTS_COMPONENT_ELF_FILE_H_
#define QMLOGCACHE_TESTS_COMPONENT_ELF_FILE_H_

#include <elf.h>

#include <map>
#include <set>
#include <string>
#include <vector>

class CElfFile {
 public:
  // Throws std::runtime_error when the file is not a complete ELF file of this machine's kind.
  explicit CElfFile(const std::string& strPath);

  // Names in the dynamic symbol table: defined and visible, and left for others to define.
  const std::set<std::string>& Exported() const { return m_setExported; }
  const std::set<std::string>& Undefined() const { return m_setUndefined; }
  // Names defined anywhere in the file, also those that only the full symbol table knows.
  const std::set<std::string>& Defined() const { return m_setDefined; }
  bool HasFullSymbolTable() const { return m_bFullSymbolTable; }

  // Texts of a dynamic entry that names one (DT_SONAME, DT_NEEDED, DT_RUNPATH ...).
  std::vector<std::string> DynamicTexts(int64_t i64Tag) const;
  // The values of a dynamic entry, or'ed; 0 when there is none.
  uint64_t DynamicFlags(int64_t i64Tag) const;
  bool HasDynamic(int64_t i64Tag) const { return m_mapDynamic.contains(i64Tag); }

 private:
  template <typename T>
  T At(uint64_t u64Offset) const;
  std::string Text(const Elf64_Shdr& strings, uint64_t u64Offset) const;
  void ReadSymbols(const Elf64_Shdr& section, const Elf64_Shdr& strings);
  void ReadDynamic(const Elf64_Shdr& section, const Elf64_Shdr& strings);

  std::string m_strImage;
  std::set<std::string> m_setExported;
  std::set<std::string> m_setUndefined;
  std::set<std::string> m_setDefined;
  bool m_bFullSymbolTable = false;
  std::map<int64_t, std::vector<uint64_t>> m_mapDynamic;
  Elf64_Shdr m_dynamicStrings{};
};

#endif  // QMLOGCACHE_TESTS_COMPONENT_ELF_FILE_H_
