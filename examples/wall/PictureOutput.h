#pragma once

#include "Camera.h"
#include "Picture.h"
#include "Report.h"
#include "WallFrame.h"

#include <string>

/// Puts ordered pictures into files, and says so.
class PictureOutput {
public:
    PictureOutput(std::string folder, Report& report) : folder_(std::move(folder)), report_(report) {}

    /// `kind` is "exact" or "shown". The texts go into the file and into the report.
    void save(const CaptureOrder& order, const std::string& kind, const Camera& camera,
              const Picture& picture, const PictureText& texts);

    /// Says that an order could not be carried out.
    void complain(const std::string& text);

    bool failed() const { return failed_; }

private:
    std::string folder_;
    Report& report_;
    bool failed_ = false;
};
