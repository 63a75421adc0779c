#include "AssociativeArrayExceptions.h"

namespace {
constexpr char kTextFile[] = "loadengine.frm";
constexpr int kIllegalSyntaxKey = 10;
constexpr int kKeyDoesNotExistKey = 11;
}  // namespace

CAssociativeArrayException::~CAssociativeArrayException() = default;

CIllegalAssoSyntaxException::CIllegalAssoSyntaxException(char const* parameter)
    : CAssociativeArrayException(KRErrorException(kTextFile, kIllegalSyntaxKey, parameter)) {}
CIllegalAssoSyntaxException::~CIllegalAssoSyntaxException() = default;

CAssoKeyDoesNotExistException::CAssoKeyDoesNotExistException(char const* key, char const* array)
    : CAssociativeArrayException(KRErrorException(kTextFile, kKeyDoesNotExistKey, key, array)) {}
CAssoKeyDoesNotExistException::~CAssoKeyDoesNotExistException() = default;
