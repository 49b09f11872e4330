// INI reader: sections in brackets, name=value or name:value pairs, comment lines starting with ; or #. White space and
// ; in a value begin a comment too. White space around names and values does not count, indented lines are ordinary
// lines. A line that is longer than 8 KiB or holds a zero byte is an error as a whole; so is a section header that is
// not closed or longer than 49 bytes, and the keys under it are passed over.
#ifndef QMLOGCACHE_PLATFORM_INI_READER_H_
#define QMLOGCACHE_PLATFORM_INI_READER_H_

extern "C" {
// Calls pfnHandler once per key, in file order; a zero result of the handler marks that line as an error, and reading
// goes on. Returns 0, the line number of the first error, or -1 when the file cannot be opened or an argument is null.
// The texts passed to the handler live for that call only.
int wrap_ini_parse(const char* pszFile,
                   int (*pfnHandler)(void* pUser, const char* pszSection, const char* pszName, const char* pszValue,
                                     int iLine),
                   void* pUser);
}

#endif  // QMLOGCACHE_PLATFORM_INI_READER_H_
