#include "TagAccessApi.h"

namespace qorvarlok::tagaccess {

TagAccessApi RealTagAccessApi() {
  return TagAccessApi{&::InitializeCommunication, &::ConnectToDevice,  &::DisconnectFromDevice,
                      &::DefineTagList,           &::DeleteTagList,    &::ReadTagListValue,
                      &::WriteTagListValue};
}

TagAccessApi& TagAccess() {
  static TagAccessApi table = RealTagAccessApi();
  return table;
}

}  // namespace qorvarlok::tagaccess
