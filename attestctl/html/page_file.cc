#include "attestctl/html/page_file.h"

#include "attestctl/html/page.h"
#include "attestctl/replace_file.h"
#include "attestctl/text.h"

bool begin_page(const settings &chosen, page_file &page, std::string &error)
{
    page.path = chosen.html_file;
    page.asked_at = std::time(nullptr);
    return page.path.empty() || can_replace_file(page.path, error);
}

void take_for_page(page_file &page, const remote_attestation_api::NodeIMAData &message,
                   const ima_start &start)
{
    if (!page.path.empty())
        take_ima_rows(page.ima_lists, message, start);
}

bool write_page(const settings &chosen, const page_file &page, const evidence &got,
                std::span<const check> checks, const trusted_roots &roots, std::string &error)
{
    if (page.path.empty())
        return true;
    const std::string from =
        printable(chosen.from_directory.empty() ? chosen.target : "evidence in " + chosen.from_directory);
    const page_input input = {from,   page.asked_at, got,          page.ima_lists,
                              checks, roots,         page.trouble, !chosen.from_directory.empty()};
    return replace_file(page.path, attestation_page(input), error);
}
