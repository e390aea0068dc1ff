// Pictures of numbers, as SVG that is part of the page.
#pragma once

#include <string_view>

#include "attestctl/html/ima_events.h"
#include "attestctl/html/markup.h"

// A bar a byte, as high as the byte: digests that are equal look equal, zeros are flat and ones are full.
void append_digest_mark(html &out, std::string_view digest);

// A list's growth, by event number: events that were new and those that repeated an earlier one, one on the
// other, and under it the share of repeats in each step; violations are marked. Nothing for an empty list.
void append_growth_plot(html &out, const shown_ima_list &list);
