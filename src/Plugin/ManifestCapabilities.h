#pragma once
// A plugin's own "etc/manifest" lies in its writable directory, and the
// platform's controller prepares the sandbox from it: before a start its
// capability list is made to match the store record, which was written from
// the verified package at installation. A plugin cannot grant itself a
// capability by editing its copy.
#include <string>

#include "common/ApiErrorCode.h"

class ManifestCapabilities {
public:
    // Rewrites the capability list of the plugin's "etc/manifest" to the one
    // recorded in the store when they differ (descriptor-relative, no link
    // followed, through a temporary file renamed into place, the file's mode
    // kept). API_SUCCESS when they match afterwards; API_NO_SUCH_PLUGIN when
    // the store has no record of `id`; API_NO_MANIFEST (logged with the
    // reason) when the plugin's manifest is missing, a link or special file,
    // does not parse or cannot be rewritten: the plugin must not start then.
    static ApiErrorCode sMatchStore(const std::string& id);
};
