// CAssociativeArray: the product's parameter bag, a dictionary from text keys
// to byte-string values. Numbers are stored as their text ("%d", "%.40e") and
// list elements as keys with the index appended ("Speed3").
//
// String form, the one textual key/value format of the product:
//   count, then for each couple a key token and a value token, then one blank;
//   a token is " '<length> " followed by exactly <length> raw bytes.
//   a=1, bc=xy  ->  "2 '1 a '1 1 '2 bc '2 xy "      (couples in table order)
//   empty       ->  " "                               (no count: the reader refuses it)
// The reader skips one byte after each token's bytes without looking at it,
// and ignores everything after the last couple.
//
// Ownership: the array owns its key and value objects. A shallow copy and its
// original share them, and whichever of the two lets an object go last
// destroys it; an object that stands under several keys, or as key and value
// (the inherited insertKeyAndValue allows it), is destroyed once.
// Pointers handed out stay valid until that key's value is replaced or the
// array is destroyed. Reset and the emptying inside operator= give the couples
// up without destroying them: what they gave up lives as long as the array.
// So a long-lived array that is Reset many times keeps all it ever held; the
// way to read message after message is a fresh array per message.
// One array belongs to one thread at a time; const getters write too.
//
// Reading and writing cost one hash probe per couple however many couples
// there are: the bucket count stays as constructed (it decides the order of
// the string form), and the dictionary indexes long chains beside it.
#pragma once

#include <string>
#include <vector>

#include "CorvanthExport.h"
#include "FrimString.h"
#include "rwcstring.h"
#include "rwhashdict.h"

// Tag of the moving constructor; it carries no data.
struct zc_move__deprecate {};
template <class T>
struct _typer_c {};

class CORVANTH_EXPORT CAssociativeArray : public RWHashDictionary {
 public:
  explicit CAssociativeArray(int capacity = 11);
  // Shallow: new associations to the same key and value objects.
  CAssociativeArray(CAssociativeArray const& other);
  // Takes over the couples of source, which is left empty.
  CAssociativeArray(_typer_c<zc_move__deprecate> const& tag, CAssociativeArray* source);
  CAssociativeArray& operator=(CAssociativeArray const& other);
  ~CAssociativeArray() override;

  // Adding replaces the value of a key that is present.
  void AddCouple(char const* key, char const* value);
  void AddCouple(char const* key, char const* value, int length);
  void AddCouple(char const* key, cStringCoeImpl const& value);
  void AddCouple(char const* key, long value);
  void AddCouple(char const* key, double value);
  void AddArrayCouple(char const* name, char const* value, int index);
  void AddArrayCouple(char const* name, long value, int index);
  void AddArrayCouple(char const* name, double value, int index);

  // Raising getters throw CAssoKeyDoesNotExistException for an absent key.
  char const* GetValueOfParameter(char const* key) const;
  char const* GetValueOfParameter(char const* key, char const* defaultValue) const;
  void GetValueOfParameter(char const* key, char const*& value, int& length) const;
  RWCString* GetStringValueOfParameter(char const* key) const;
  // With encode true, escapes the stored value in place: bytes below 32 or
  // above 126, backslash and double quote become "%xx", and "%" doubles.
  RWCString* GetValueOfParameterAndDecodeIf(char const* key, bool encode) const;
  char const* operator[](char const* key) const;
  long GetInt32ValueOfParameter(char const* key) const;
  long GetInt32ValueOfParameter(char const* key, long defaultValue) const;
  double GetDoubleValueOfParameter(char const* key) const;
  double GetDoubleValueOfParameter(char const* key, double defaultValue) const;
  char const* GetValueOfParameterArray(char const* name, int index) const;
  char const* GetValueOfParameterArray(char const* name, int index, char const* defaultValue) const;
  long GetInt32ValueOfParameterArray(char const* name, int index) const;
  long GetInt32ValueOfParameterArray(char const* name, int index, long defaultValue) const;
  double GetDoubleValueOfParameterArray(char const* name, int index) const;
  double GetDoubleValueOfParameterArray(char const* name, int index, double defaultValue) const;
  bool KeyExists(char const* key) const;

  // All couples go; their objects stay readable as long as the array lives.
  void Reset();

  // Writers: rebuild the cached string form. omitBody leaves out the value of
  // "$RESPONSEBODY", and with it omitProxyPost that of "$PROXYPOSTDATA".
  char const* ToString(bool omitBody, bool omitProxyPost) const;
  // The form to use when values may hold zero bytes.
  void ToString(char const*& text, int& length, bool omitBody, bool omitProxyPost) const;
  RWCString const& ToStringRef(bool omitBody, bool omitProxyPost) const;

  // Readers add to the array (Reset first for a fresh read). Any fault raises
  // CIllegalAssoSyntaxException with the whole input as parameter; couples read
  // before the fault stay. No reader looks beyond its input, which ends:
  // - for FromString(text, length) and the RWCString and std::string forms
  //   (which pass their size as length), at the larger of length and the
  //   text's zero-terminated size: text must be zero-terminated or hold length bytes;
  // - for FromStringZTS and FromStringX2_deprecate, at the zero terminator.
  void FromString(char const* text, int length);
  void FromStringRef(RWCString const& text);
  void FromStringZ1(RWCString const& text);
  void FromStringZ1(std::string const& text);
  void FromStringX2_deprecate(char const* text);
  void FromStringZTS(char const* text);

  // Text conversion at the border. Code pages are Windows code page numbers
  // (Uzend.h). The conversion mode is the setting CorvanthAnsiConversion_patch
  // of kestrun.ini, read at the first call that needs it and kept for the life
  // of the process (a changed file counts from the next process on):
  //   0, and also an absent setting or one that is no number: no conversion;
  //   1: rewrite with gConvertX1Internal; 2: with gConvertX1Internal_patch;
  //   any other: conversions give false and log an error.
  // Rewriting converts every leaf value of a form at any depth and recomputes
  // the lengths around it; keys, counts and lengths stay as they are. Whatever
  // does not read as a form is one leaf, the whole text included. A leaf is
  // converted up to its first zero byte. Texts are zero-terminated; a length
  // beyond that terminator means the text holds that many bytes. No rewriter
  // raises (save out of memory) or looks beyond its input.
  //
  // Mode 0: out becomes the length bytes of text (the zero-terminated text for
  // a negative length), and the result is true. Else gConvertX1 in that mode.
  static bool ConvertX0(unsigned sourceCodePage, unsigned targetCodePage, char const* text, int length,
                        RWCString& out);
  // Never reads the setting: always the mended rewriter on the zero-terminated text.
  static bool ConvertZ38(unsigned sourceCodePage, unsigned targetCodePage, char const* text, RWCString& out);
  // Mode 0: FromString. Else the converted text is read, and a failed
  // conversion (logged) leaves the empty text, which the reader refuses.
  void FromStringConvert(unsigned sourceCodePage, unsigned targetCodePage, char const* text, int length);

  // The rewriter of the given mode (1 or 2); any other mode gives false, logs
  // one error and leaves out untouched. A null text gives false and an empty out.
  static bool gConvertX1(int mode, unsigned sourceCodePage, unsigned targetCodePage, char const* text, int length,
                         RWCString& out);
  // One text from one code page to the other through UTF-16, as the Win32
  // pair does it: length -1 takes the text with its terminator, a null target
  // with size 0 asks for the size. Gives the count of target bytes, 0 on failure.
  static int gConvertLeaf(unsigned sourceCodePage, unsigned targetCodePage, char const* text, int length,
                          char* target, int targetSize);
  // The process-wide conversion mode; concurrent first callers all see one value.
  static int gAnsiConversionMode();
  // The first rewriter. Its defect stays, since the second exists to mend it:
  // a count of 0 or below reads as a form with no couples, so the leaf
  // "0 apples" comes out as "0 ". Values are seen up to their first zero byte.
  static bool gConvertX1Internal(unsigned sourceCodePage, unsigned targetCodePage, char const* text, RWCString& out);
  // The mended rewriter: a count of 0 or below makes a leaf, and keys and
  // values keep their zero bytes. whole, wholeLength and offset (of text in
  // whole) serve the failure reports only.
  static bool gConvertX1Internal_patch(unsigned sourceCodePage, unsigned targetCodePage, char const* text,
                                       int length, RWCString& out, char const* whole, int wholeLength, int offset);

  // clear is Reset. clearAndDestroy and removeAndDestroy destroy what no other
  // array holds, each object once.
  void clear() override;
  void clearAndDestroy() override;
  void removeAndDestroy(RWCollectable const* key) override;
  // The dictionary's own ways in: what enters through them is the array's too.
  RWCollectable* insert(RWCollectable* element) override;
  RWCollectableAssociation* newAssociation(RWCollectable* key, RWCollectable* value) const override;

 private:
  void ToStringInternal(bool omitBody, bool omitProxyPost) const;
  void fRead(char const* text, std::size_t size, int reportedLength);
  void fAddBytes(char const* key, std::size_t keyLength, char const* value, std::size_t valueLength);
  RWCString* fFind(char const* key) const;
  RWCString* fFindOrRaise(char const* key) const;
  bool fMayAlias() const noexcept;
  std::vector<RWCollectable*> fObjectsOfCouples() const;
  void fShareWith(CAssociativeArray const& other, std::vector<RWCollectable*> const& alreadyHeld);
  void fGiveUp(RWCollectable* object);
  void fRelease(std::vector<RWCollectable*>& objects) const;

  mutable RWCString mStringForm;
  // Objects given up by Reset and operator=, alive as long as the array.
  std::vector<RWCollectable*> mParked;
  // Holds objects that another array may hold too (it took part in a copy).
  mutable bool mShares = false;
  // A couple came in through the dictionary's own interface, so one object
  // may stand in several places.
  mutable bool mForeign = false;
};
