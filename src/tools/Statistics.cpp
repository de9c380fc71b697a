#include "tools/Statistics.h"

#include <glog/logging.h>

void Statistics::statOnce(const std::string& key, std::string value) {
    LOG(WARNING) << "stat_points_none " << key << "=" << value;
}
