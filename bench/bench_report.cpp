#include "bench_report.h"

#include <sys/utsname.h>
#include <time.h>
#include <unistd.h>

#include <cmath>

#include "bench_fixture.h"

namespace Quorel {
namespace Iot {
namespace Bench {

namespace {

Json::Value host_description() {
    Json::Value host;
    struct utsname names;
    if (uname(&names) == 0) {
        host["kernel"] = std::string(names.sysname) + " " + names.release;
        host["machine"] = names.machine;
    }
    host["cpus"] = static_cast<Json::Int64>(sysconf(_SC_NPROCESSORS_ONLN));
    char stamp[64];
    const time_t now = time(nullptr);
    struct tm utc;
    gmtime_r(&now, &utc);
    strftime(stamp, sizeof(stamp), "%Y-%m-%dT%H:%M:%SZ", &utc);
    host["time"] = stamp;
    return host;
}

}  // namespace

std::string format_value(double value) {
    char buffer[64];
    const double magnitude = std::fabs(value);
    if (magnitude >= 100 || value == std::floor(value)) {
        snprintf(buffer, sizeof(buffer), "%.0f", value);
    } else if (magnitude >= 10) {
        snprintf(buffer, sizeof(buffer), "%.1f", value);
    } else if (magnitude >= 0.1) {
        snprintf(buffer, sizeof(buffer), "%.2f", value);
    } else {
        // Two significant digits, so that a small ratio does not print as 0.
        snprintf(buffer, sizeof(buffer), "%.2g", value);
    }
    return buffer;
}

double load_average() {
    double load = -1;
    FILE* in = fopen("/proc/loadavg", "r");
    if (in == nullptr) return load;
    if (fscanf(in, "%lf", &load) != 1) load = -1;
    fclose(in);
    return load;
}

CReport::CFigure* CReport::find(const std::string& id) {
    for (CFigure& f : m_figures) {
        if (f.id == id) return &f;
    }
    return nullptr;
}

void CReport::figure(const std::string& id, const std::string& label, double value, const std::string& unit,
                     const std::string& detail) {
    CFigure f;
    f.id = id;
    f.label = label;
    f.value = value;
    f.unit = unit;
    f.detail = detail;
    m_figures.push_back(f);
}

void CReport::ratio(const std::string& id, double baseline, double ratio) {
    CFigure* f = find(id);
    if (f == nullptr || baseline <= 0) return;
    f->has_ratio = true;
    f->baseline = baseline;
    f->ratio = ratio > 0 ? ratio : f->value / baseline;
}

void CReport::target(const std::string& id, const std::string& text, bool pass) {
    CFigure* f = find(id);
    if (f == nullptr) return;
    f->has_target = true;
    f->target = text;
    f->pass = pass;
}

void CReport::problem(const std::string& text) { m_problems.push_back(text); }

int CReport::misses() const {
    int count = static_cast<int>(m_problems.size());
    for (const CFigure& f : m_figures) {
        if (f.has_target && !f.pass) ++count;
    }
    return count;
}

void CReport::print(FILE* out) const {
    for (const std::string& n : m_notes) fprintf(out, "\nNOTE: %s\n", n.c_str());
    fprintf(out, "\n%-44s %12s %-8s %9s  %-32s %s\n", "figure", "value", "unit", "ratio", "target", "result");
    for (const CFigure& f : m_figures) {
        const std::string ratio = f.has_ratio ? format_value(f.ratio) + "x" : "";
        fprintf(out, "%-44s %12s %-8s %9s  %-32s %s\n", f.label.c_str(), format_value(f.value).c_str(), f.unit.c_str(),
                ratio.c_str(), f.target.c_str(), f.has_target ? (f.pass ? "PASS" : "MISS") : "");
        if (!f.detail.empty()) fprintf(out, "    %s\n", f.detail.c_str());
    }
    for (const std::string& p : m_problems) fprintf(out, "PROBLEM: %s\n", p.c_str());
    fprintf(out, "\n%d target(s) missed or not measured\n", misses());
}

bool CReport::write(const std::string& path, std::string& error) const {
    Json::Value root;
    root["host"] = host_description();
    Json::Value& figures = root["figures"];
    figures = Json::Value(Json::objectValue);
    for (const CFigure& f : m_figures) {
        Json::Value& j = figures[f.id];
        j["label"] = f.label;
        j["value"] = f.value;
        j["unit"] = f.unit;
        if (!f.detail.empty()) j["detail"] = f.detail;
        if (f.has_ratio) {
            j["baseline"] = f.baseline;
            j["ratio"] = f.ratio;
        }
        if (f.has_target) {
            j["target"] = f.target;
            j["pass"] = f.pass;
        }
    }
    Json::Value problems(Json::arrayValue);
    for (const std::string& p : m_problems) problems.append(p);
    root["problems"] = problems;
    Json::Value notes(Json::arrayValue);
    for (const std::string& n : m_notes) notes.append(n);
    root["notes"] = notes;
    root["details"] = m_details;
    return write_text_file(path, Json::writeString(Json::StreamWriterBuilder(), root) + "\n", error);
}

}  // namespace Bench
}  // namespace Iot
}  // namespace Quorel
