#pragma once
// Result of file moves and directory copies: the file-system error that
// caused a failure together with the plugin core's own result code.
#include <boost/system/error_code.hpp>

#include "common/ApiErrorCode.h"

namespace datacenter {

class ErrorCode {
public:
    ErrorCode() = default;
    explicit ErrorCode(const boost::system::error_code& systemError, ApiErrorCode apiCode = API_SUCCESS)
        : systemError_(systemError), apiCode_(apiCode) {}
    explicit ErrorCode(ApiErrorCode apiCode) : apiCode_(apiCode) {}
    virtual ~ErrorCode() = default;

    const boost::system::error_code& systemError() const { return systemError_; }
    ApiErrorCode apiCode() const { return apiCode_; }

    // Success means neither the file system nor the core reported a failure.
    bool ok() const { return !systemError_ && apiCode_ == API_SUCCESS; }

private:
    boost::system::error_code systemError_;
    ApiErrorCode apiCode_ = API_SUCCESS;
};

}  // namespace datacenter
