#include "attestctl/verify/sources.h"

#include <algorithm>

#include "attestctl/text.h"

namespace {

// False: there are too many.
template <typename Answer, typename Record>
bool sort_in(std::vector<source> &sources, const Answer &answer, const Record *source::*kind)
{
    if (static_cast<std::size_t>(answer.node_data().size()) > MOST_SOURCES)
        return false;
    for (const Record &record : answer.node_data()) {
        const auto waits_for_it = [&](const source &one) {
            return one.name == record.node_name() && one.*kind == nullptr;
        };
        auto place = std::find_if(sources.begin(), sources.end(), waits_for_it);
        if (place == sources.end())
            place = sources.insert(place, source{record.node_name()});
        (*place).*kind = &record;
    }
    return true;
}

std::string shown_name(const std::string &name)
{
    return name.empty() ? "(without a name)" : printable(name, LONGEST_SOURCE_NAME);
}

} // namespace

bool sort_by_source(const evidence &got, std::vector<source> &sources)
{
    return sort_in(sources, got.identity, &source::identity) &&
           sort_in(sources, got.attestation_key, &source::attestation_key) &&
           sort_in(sources, got.pcrs, &source::pcrs) && sort_in(sources, got.boot_log, &source::boot_log) &&
           sort_in(sources, got.hw_integrity, &source::hw_integrity);
}

std::string source_name(const std::vector<source> &sources, std::size_t index)
{
    std::vector<std::string> given;
    for (std::size_t i = 0; i <= index; ++i) {
        const std::string shown = shown_name(sources[i].name);
        std::string name = shown;
        for (int n = 2; std::ranges::find(given, name) != given.end(); ++n)
            name = shown + format(" (%d)", n);
        given.push_back(std::move(name));
    }
    return given.back();
}

const ima_list *ima_list_of(const evidence &got, const source &from)
{
    const auto found = std::find_if(got.ima_lists.begin(), got.ima_lists.end(),
                                    [&from](const ima_list &one) { return one.source == from.name; });
    return found == got.ima_lists.end() ? nullptr : &*found;
}
