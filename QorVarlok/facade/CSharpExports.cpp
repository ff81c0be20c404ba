// The plain exports of the managed surface that are written by hand rather
// than generated: thin calls into the class.
#include "QorVarlok/ZelVarlok.h"
#include "VarlokLog.h"
#include "ZelVarlok_p.h"

extern "C" {

QORVARLOK_API const char* CSharp_ReadErrorDescription(unsigned int code) { return ReadErrorDescription(code); }

QORVARLOK_API int CSharp_GetTagsListLength(ZelVarlok* varlok, HTAGLIST handle) {
  if (varlok == nullptr) {
    VLOG(err, "CSharp_GetTagsListLength", "varlok == nullptr");
    return 0;
  }
  return varlok->GetTagsListLength(handle);
}

QORVARLOK_API int CSharp_ReadTagsListDesc(ZelVarlok* varlok, HTAGLIST handle, tagTagDesc** descs) {
  if (varlok == nullptr) {
    VLOG(err, "CSharp_ReadTagsListDesc", "varlok == nullptr");
    return 0;
  }
  return varlok->GetTagDescByDefinedHandle(handle, descs);
}

// 1 when the tag exists, else 0; *desc receives the record or null.
QORVARLOK_API int CSharp_ReadTagsDescByTagName(ZelVarlok* varlok, const char* name, tagTagDesc** desc) {
  if (varlok == nullptr || name == nullptr || desc == nullptr) {
    VLOG(err, "CSharp_ReadTagsDescByTagName", "varlok={}, name={}, desc={}", static_cast<void*>(varlok),
         static_cast<const void*>(name), static_cast<void*>(desc));
    if (desc != nullptr) *desc = nullptr;
    return 0;
  }
  const std::string tagName(name);
  *desc = varlok->GetTagDescByName(tagName);
  return *desc != nullptr ? 1 : 0;
}
}
