#include "elf_file.h"

#include <cstring>
#include <fstream>
#include <iterator>
#include <stdexcept>

CElfFile::CElfFile(const std::string& strPath) {
  std::ifstream file(strPath, std::ios::binary);
  m_strImage.assign(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
  const auto header = At<Elf64_Ehdr>(0);
  if (std::memcmp(header.e_ident, ELFMAG, SELFMAG) != 0 || header.e_ident[EI_CLASS] != ELFCLASS64 ||
      header.e_type != ET_DYN) {
    throw std::runtime_error(strPath + ": not a shared library of this machine");
  }
  const auto sectionAt = [&](uint64_t u64Index) {
    return At<Elf64_Shdr>(header.e_shoff + u64Index * sizeof(Elf64_Shdr));
  };
  for (unsigned int i = 0; i < header.e_shnum; ++i) {
    const Elf64_Shdr section = sectionAt(i);
    if (section.sh_type == SHT_DYNSYM || section.sh_type == SHT_SYMTAB) {
      ReadSymbols(section, sectionAt(section.sh_link));
    } else if (section.sh_type == SHT_DYNAMIC) {
      ReadDynamic(section, sectionAt(section.sh_link));
    }
  }
}

template <typename T>
T CElfFile::At(uint64_t u64Offset) const {
  if (u64Offset > m_strImage.size() || m_strImage.size() - u64Offset < sizeof(T)) {
    throw std::runtime_error("the ELF file is cut short");
  }
  T value{};
  std::memcpy(&value, m_strImage.data() + u64Offset, sizeof(value));
  return value;
}

std::string CElfFile::Text(const Elf64_Shdr& strings, uint64_t u64Offset) const {
  const uint64_t u64Begin = strings.sh_offset + u64Offset;
  const size_t uEnd = m_strImage.find('\0', u64Begin);
  if (uEnd == std::string::npos) {
    throw std::runtime_error("the ELF file is cut short");
  }
  return m_strImage.substr(u64Begin, uEnd - u64Begin);
}

void CElfFile::ReadSymbols(const Elf64_Shdr& section, const Elf64_Shdr& strings) {
  const bool bDynamic = section.sh_type == SHT_DYNSYM;
  m_bFullSymbolTable = m_bFullSymbolTable || !bDynamic;
  for (uint64_t u64At = sizeof(Elf64_Sym); u64At < section.sh_size; u64At += sizeof(Elf64_Sym)) {
    const auto symbol = At<Elf64_Sym>(section.sh_offset + u64At);
    const unsigned char uType = ELF64_ST_TYPE(symbol.st_info);
    if (uType == STT_FILE || uType == STT_SECTION) {
      continue;
    }
    const std::string strName = Text(strings, symbol.st_name);
    if (symbol.st_shndx != SHN_UNDEF) {
      m_setDefined.insert(strName);
    }
    if (!bDynamic) {
      continue;
    }
    if (symbol.st_shndx == SHN_UNDEF) {
      m_setUndefined.insert(strName);
    } else if (ELF64_ST_BIND(symbol.st_info) != STB_LOCAL && ELF64_ST_VISIBILITY(symbol.st_other) != STV_HIDDEN) {
      m_setExported.insert(strName);
    }
  }
}

void CElfFile::ReadDynamic(const Elf64_Shdr& section, const Elf64_Shdr& strings) {
  m_dynamicStrings = strings;
  for (uint64_t u64At = 0; u64At < section.sh_size; u64At += sizeof(Elf64_Dyn)) {
    const auto entry = At<Elf64_Dyn>(section.sh_offset + u64At);
    if (entry.d_tag == DT_NULL) {
      return;
    }
    m_mapDynamic[entry.d_tag].push_back(entry.d_un.d_val);
  }
}

std::vector<std::string> CElfFile::DynamicTexts(int64_t i64Tag) const {
  std::vector<std::string> vecTexts;
  if (const auto it = m_mapDynamic.find(i64Tag); it != m_mapDynamic.end()) {
    for (const uint64_t u64Offset : it->second) {
      vecTexts.push_back(Text(m_dynamicStrings, u64Offset));
    }
  }
  return vecTexts;
}

uint64_t CElfFile::DynamicFlags(int64_t i64Tag) const {
  uint64_t u64Flags = 0;
  if (const auto it = m_mapDynamic.find(i64Tag); it != m_mapDynamic.end()) {
    for (const uint64_t u64Value : it->second) {
      u64Flags |= u64Value;
    }
  }
  return u64Flags;
}
