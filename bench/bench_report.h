// The figures of one run: printed as a table (value, ratio to the baseline, target, PASS/MISS)
// and written as JSON so that runs can be compared.
#ifndef QUOREL_BENCH_BENCH_REPORT_H
#define QUOREL_BENCH_BENCH_REPORT_H

#include <json/json.h>

#include <cstdio>
#include <string>
#include <vector>

namespace Quorel {
namespace Iot {
namespace Bench {

// A figure's value as printed: whole numbers from 100 on, two significant digits below 0.1.
std::string format_value(double value);

// The one-minute load average of the machine, -1 when unknown.
double load_average();

class CReport {
public:
    // Adds a figure; id names it in the JSON file.
    void figure(const std::string& id, const std::string& label, double value, const std::string& unit,
                const std::string& detail = "");
    // Relates the figure to the baseline's value (same unit); the ratio is value / baseline
    // unless given.
    void ratio(const std::string& id, double baseline, double ratio = 0);
    void target(const std::string& id, const std::string& text, bool pass);
    // Raw measurements, written to the JSON file only.
    Json::Value& details() { return m_details; }
    // A measurement that could not be made; shown after the table and counted as a miss.
    void problem(const std::string& text);
    // Printed above the table.
    void note(const std::string& text) { m_notes.push_back(text); }

    void print(FILE* out) const;
    bool write(const std::string& path, std::string& error) const;
    int misses() const;
    int problems() const { return static_cast<int>(m_problems.size()); }

private:
    struct CFigure {
        std::string id;
        std::string label;
        double value = 0;
        std::string unit;
        std::string detail;
        bool has_ratio = false;
        double baseline = 0;
        double ratio = 0;
        std::string target;
        bool has_target = false;
        bool pass = false;
    };
    CFigure* find(const std::string& id);

    std::vector<CFigure> m_figures;
    std::vector<std::string> m_problems;
    std::vector<std::string> m_notes;
    Json::Value m_details{Json::objectValue};
};

}  // namespace Bench
}  // namespace Iot
}  // namespace Quorel

#endif
