// The HTML report's page assets, compiled in by cmake/HtmlReportAssets.cmake from
// src/reports/html/ and Debian's Chart.js. None of them holds "</script", "</style" or "<!--": the
// build refuses them, so the page writer inlines them as they are.
#pragma once

#include <string_view>

namespace vl::html_assets {

std::string_view reportJs();
std::string_view reportCss();
// The licence of Chart.js, which the page carries beside the library.
std::string_view chartJsLicense();
// Chart.js 3, the UMD build with its own licence header.
std::string_view chartJs();

}  // namespace vl::html_assets
