// The page's style and script: page.css and page.js, as the build found them.
#pragma once

#include <string_view>

extern const std::string_view PAGE_STYLE, PAGE_SCRIPT;
