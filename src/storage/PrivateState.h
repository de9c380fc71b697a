#pragma once
// The one home of the core's private state: the install lock and journal,
// the firmware facts and the firmware re-check's records. It is the folder
// "/data/etc/datacenter/state/" (root prefixed), 0700, owned by the core,
// never on the user disk that "access_userdata" binds into sandboxes. Its
// parent also holds the privacy white list other router programs read, so
// the parent keeps whatever owner and mode the platform gave it.
#include <string>

namespace datacenter {

class PrivateState {
public:
    // The folder, with a trailing "/".
    static std::string sDir();
    // The file `name` in it.
    static std::string sPath(const std::string& name);
    // Creates the folder (and missing parents, 0755) without following a
    // link on the way, and makes it 0700. False, logged with the reason, when
    // a link, a file or a folder of another owner stands in its way. Files an
    // older version kept in the parent folder move in once.
    static bool sEnsure();
};

}  // namespace datacenter
