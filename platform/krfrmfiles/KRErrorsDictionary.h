// KRErrorsDictionary: the texts of one error text file, read when the
// dictionary is made. Copies share the texts read; the last one to go frees
// them. Thread-safe: dictionaries may be made, copied and read on any thread.
//
// Error text files (".frm") are UTF-8 text, one entry per line:
//     <key><TAB><text>
// where <key> is a decimal number (an optional "-", then digits, within 32
// bits) at the very start of the line, and <text> is the rest of the line.
// In the text "%s" takes the next parameter and "%%" stands for "%". A line
// that starts with "#" is a comment; empty lines, lines without the tab, with
// a malformed key or longer than 65536 bytes are ignored, and a trailing CR is
// dropped. For a key written twice the first line counts. Example, in bytes:
//     31 30 09 42 61 64 20 22 25 73 22 0A        10<TAB>Bad "%s"<LF>
// gives key 10 the text `Bad "%s"`. A file above 4 MiB is not read.
//
// Files are looked up by plain name (no "/"): first in $KESTRUN_HOME/dat/,
// then in the installed data directory, which is found relative to the
// installed library (a moved install finds its own files); the first one found
// is the one used. A dictionary reads its file when it is made; the
// exceptions read each file once per process and product home.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "CorvanthExport.h"
#include "rwcstring.h"

class CORVANTH_EXPORT KRErrorsDictionary {
 public:
  // A dictionary that holds no texts.
  KRErrorsDictionary() = default;
  explicit KRErrorsDictionary(char const* fileName);
  KRErrorsDictionary(KRErrorsDictionary const& other);
  KRErrorsDictionary& operator=(KRErrorsDictionary const& other);
  virtual ~KRErrorsDictionary();

  // True when the file was found and read.
  bool IsLoaded() const { return mHandle != 0; }
  // The text under `key`, unformatted; false when there is none.
  bool GetText(int key, RWCString& text) const;

 private:
  std::int32_t mHandle = 0;  // the loaded texts in the library's table; 0 for none
};

// Formats `parameters` into `text` as an error text file means it: "%s" takes
// the next parameter (none left: nothing), "%%" gives "%", and parameters
// left over are appended, so that none is lost.
CORVANTH_EXPORT RWCString KRFormatErrorText(std::string_view text,
                                            std::string_view const* parameters, std::size_t count);
