#include "attestctl/html/pictures.h"

#include <algorithm>

#include "attestctl/text.h"

namespace {

// Coordinates of the plots; the page stretches them to the place that there is.
constexpr double WIDTH = 1000, HEIGHT = 200, SHARE_HEIGHT = 60;

// Numbers of our own: nothing in them needs escaping.
std::string point(double x, double y)
{
    return format("%.1f %.1f", x, y);
}

struct curve_point {
    double x, first_seen, all; // events so far
};

std::vector<curve_point> curve_of(const ima_growth &growth)
{
    std::vector<curve_point> points = {{0, 0, 0}};
    for (const ima_counts &step : growth.steps) {
        const curve_point &before = points.back();
        const auto events = static_cast<double>(step.events), repeats = static_cast<double>(step.repeats);
        points.push_back({before.x + events, before.first_seen + events - repeats, before.all + events});
    }
    return points;
}

void append_areas(html &out, const std::vector<curve_point> &points, double events)
{
    const auto at = [events](double x, double y) {
        return point(x / events * WIDTH, HEIGHT - y / events * HEIGHT);
    };
    std::string repeated = "M0 200L" + at(events, events), seen = "M0 200";
    for (auto p = points.rbegin(); p != points.rend(); ++p)
        repeated += 'L' + at(p->x, p->first_seen);
    for (const curve_point &p : points)
        seen += 'L' + at(p.x, p.first_seen);
    out << "<path class=repeats d=\"" << repeated << "Z\"/><path class=new d=\"" << seen << "L1000 200Z\"/>"
        << "<path class=edge d=\"" << seen << "\"/>";
}

void append_violations(html &out, const ima_growth &growth, double events)
{
    std::string marks;
    double x = 0;
    for (const ima_counts &step : growth.steps) {
        const double middle = (x + static_cast<double>(step.events) / 2) / events * WIDTH;
        if (step.violations != 0)
            marks += "M" + point(middle, 0) + "V200";
        x += static_cast<double>(step.events);
    }
    if (!marks.empty())
        out << "<path class=violations d=\"" << marks << "\"/>";
}

void append_shares(html &out, const ima_growth &growth, double events)
{
    std::string bars;
    double x = 0;
    for (const ima_counts &step : growth.steps) {
        const auto width = static_cast<double>(step.events);
        const double share = static_cast<double>(step.repeats) / width;
        if (step.repeats != 0)
            bars += "M" + point(x / events * WIDTH, SHARE_HEIGHT) +
                    format("v%.1fh%.2fv%.1fZ", -share * SHARE_HEIGHT, width / events * WIDTH,
                           share * SHARE_HEIGHT);
        x += width;
    }
    out << "<path class=share d=\"" << bars << "\"/>";
}

std::string percent(std::uint64_t part, std::uint64_t whole)
{
    return format("%.1f %%",
                  whole == 0 ? 0.0 : 100.0 * static_cast<double>(part) / static_cast<double>(whole));
}

} // namespace

void append_digest_mark(html &out, std::string_view digest)
{
    constexpr std::size_t MOST_BYTES = 64;
    const std::string_view shown = digest.substr(0, MOST_BYTES);
    std::string bars;
    for (std::size_t i = 0; i < shown.size(); ++i)
        bars += format("M%zu 16v-%.0f", 2 * i + 1, 1 + static_cast<unsigned char>(shown[i]) / 17.0);
    out << "<svg class=mark aria-hidden=true viewBox=\"0 0 " << std::to_string(2 * shown.size())
        << " 16\"><path d=\"" << bars << "\"/></svg>";
}

void append_growth_plot(html &out, const shown_ima_list &list)
{
    if (list.counts.events == 0)
        return;
    const auto events = static_cast<double>(list.counts.events);
    const std::uint64_t first_seen = list.counts.events - list.counts.repeats;
    const std::string summary = counted(list.counts.events, "event") + ", " + grouped(first_seen) +
                                " of them new and " + grouped(list.counts.repeats) + " repeats (" +
                                percent(list.counts.repeats, list.counts.events) + ")";
    out << "<figure class=growth><figcaption><b>Growth of the list</b> by event number: <i class=new></i>new "
        << first_seen << " <i class=repeats></i>repeats " << list.counts.repeats << " ("
        << percent(list.counts.repeats, list.counts.events) << ")";
    if (list.counts.violations != 0)
        out << " <i class=violations></i>violations " << list.counts.violations;
    out << "</figcaption><div class=scale><span>" << list.counts.events << "</span><span>0</span></div>"
        << "<svg class=curve role=img aria-label=\"" << summary
        << "\" viewBox=\"0 0 1000 200\" preserveAspectRatio=none>";
    append_areas(out, curve_of(list.growth), events);
    append_violations(out, list.growth, events);
    out << "</svg><div class=scale><span>100 %</span><span>0</span></div>"
        << "<svg class=shares role=img aria-label=\"share of repeats along the list\""
        << " viewBox=\"0 0 1000 60\" preserveAspectRatio=none>";
    append_shares(out, list.growth, events);
    out << "</svg><p class=along><span>event " << list.first_number
        << "</span><span>share of repeats, for each " << counted(list.growth.step_events, "event")
        << "</span><span>event " << list.last_number << "</span></p></figure>";
}
