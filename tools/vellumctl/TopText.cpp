#include "tools/vellumctl/TopText.h"

#include "foundation/Escape.h"
#include "tools/vellumctl/TimeText.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <optional>
#include <vector>

namespace Vellum::Tools {
namespace {

constexpr char const* decisionsTotal = "vellum_decisions_total";

std::string fixed(double number, int digits = 1) {
    std::array<char, 64> room{};
    std::snprintf(room.data(), room.size(), "%.*f", digits, number);
    return room.data();
}

// A daemon that lies may tell any number.
std::int64_t wholeSeconds(double seconds) {
    constexpr double most = 1e15;
    return static_cast<std::int64_t>(std::clamp(seconds, -most, most));
}

// Rows in columns: the first two to the left, as names are, the others to the right.
class Rows {
  public:
    using Row = std::vector<std::string>;

    void add(Row row) { m_rows.push_back(std::move(row)); }
    std::string text(std::size_t names) const {
        std::vector<std::size_t> widths;
        for (Row const& row : m_rows) {
            widths.resize(std::max(widths.size(), row.size()));
            for (std::size_t i = 0; i < row.size(); ++i) {
                widths[i] = std::max(widths[i], row[i].size());
            }
        }
        std::string all;
        for (Row const& row : m_rows) {
            std::string line;
            for (std::size_t i = 0; i < row.size(); ++i) {
                std::string const padding(widths[i] - row[i].size(), ' ');
                line += (i == 0 ? "" : "  ") + (i < names ? row[i] + padding : padding + row[i]);
            }
            all += line.substr(0, line.find_last_not_of(' ') + 1) + "\n";
        }
        return all;
    }

  private:
    std::vector<Row> m_rows;
};

// The metrics of one answer.
class Sample {
  public:
    explicit Sample(Json const& answer) : m_time(answer.at("time").get<double>()), m_metrics(answer.at("metrics")) {}

    double time() const { return m_time; }
    double startedAt() const { return value("vellum_start_time_seconds").value_or(m_time); }
    // All samples of a metric; none when there is no such metric.
    Json const& samples(char const* metric) const {
        static Json const none = Json::array();
        auto const found = m_metrics.find(metric);
        return found == m_metrics.end() ? none : found->at("samples");
    }
    std::optional<double> value(char const* metric, Json const& labels = Json::object()) const {
        for (Json const& sample : samples(metric)) {
            if (sample.at("labels") == labels) {
                return sample.at("value").get<double>();
            }
        }
        return std::nullopt;
    }

  private:
    double m_time;
    Json const& m_metrics;
};

std::string label(Json const& sample, char const* name) {
    return escapeForLog(sample.at("labels").at(name).get<std::string>());
}

class Frame {
  public:
    Frame(Json const& answer, Json const* before) : m_now(answer) {
        if (before != nullptr) {
            m_before.emplace(*before);
            if (m_before->startedAt() != m_now.startedAt() || m_before->time() >= m_now.time()) {
                m_before.reset();
            }
        }
    }
    std::string text() const {
        return head() + "\n" + fronts() + "\n" + decisions() + "\n" + latency() + "\n" + caches() + "\n" + backups() +
               "\n" + families();
    }

  private:
    double seconds() const { return std::max(m_now.time() - (m_before ? m_before->time() : m_now.startedAt()), 0.001); }
    std::string count(char const* metric, Json const& labels = Json::object()) const {
        auto const value = m_now.value(metric, labels);
        return value ? fixed(*value, 0) : "-";
    }
    std::string rate(char const* metric, Json const& labels) const {
        auto const value = m_now.value(metric, labels);
        double const earlier = m_before ? m_before->value(metric, labels).value_or(0) : 0;
        return value ? fixed((*value - earlier) / seconds()) : "-";
    }
    std::string state(char const* metric, char const* yes, char const* no) const {
        auto const value = m_now.value(metric);
        return !value ? "unknown" : *value != 0 ? yes : no;
    }

    std::string head() const {
        Json const& build = m_now.samples("vellum_build_info");
        std::string const version = build.empty() ? "-" : label(build.front(), "version");
        std::int64_t const now = wholeSeconds(m_now.time());
        return "vellumd " + version + ", up " + durationText(now - wholeSeconds(m_now.startedAt())) + ", " +
               localTime(now) + "; rates of " +
               (m_before ? "the last " + fixed(seconds()) + " s" : "all the time since the start") + "\n" +
               "database " + state("vellum_database_up", "up", "DOWN") + ", database daemon " +
               state("vellum_database_daemon_up", "up", "DOWN") + ", unit " +
               state("vellum_high_availability_active", "active", "STANDBY") + "\n";
    }
    std::string fronts() const {
        Rows rows;
        rows.add({"FRONT", "MESSAGES/S", "MESSAGES", "OPEN", "CONNECTIONS/S", "REFUSED", "FAILURES"});
        for (Json const& sample : m_now.samples("vellum_messages_total")) {
            Json const& of = sample.at("labels");
            rows.add({label(sample, "front"), rate("vellum_messages_total", of), count("vellum_messages_total", of),
                      count("vellum_front_connections", of), rate("vellum_front_connections_accepted_total", of),
                      count("vellum_front_connections_refused_total", of), count("vellum_front_failures_total", of)});
        }
        return rows.text(1);
    }
    // By front, action and reason; those that never happened are left out. There is no sum of the fronts: a recipient
    // that both were asked about is counted by both.
    std::string decisions() const {
        Rows rows;
        rows.add({"FRONT", "DECISION", "REASON", "PER S", "TOTAL"});
        std::vector<std::string> fronts;
        for (Json const& sample : m_now.samples(decisionsTotal)) {
            if (std::string front = label(sample, "front");
                std::find(fronts.begin(), fronts.end(), front) == fronts.end()) {
                fronts.push_back(std::move(front));
            }
        }
        for (std::string const& front : fronts) {
            addDecisions(rows, front);
        }
        return rows.text(3);
    }
    void addDecisions(Rows& rows, std::string const& front) const {
        double all = 0;
        double allBefore = 0;
        for (Json const& sample : m_now.samples(decisionsTotal)) {
            if (double const count = sample.at("value").get<double>(); count > 0 && label(sample, "front") == front) {
                Json const& of = sample.at("labels");
                all += count;
                allBefore += m_before ? m_before->value(decisionsTotal, of).value_or(0) : 0;
                rows.add({front, label(sample, "action"), label(sample, "reason"), rate(decisionsTotal, of),
                          fixed(count, 0)});
            }
        }
        rows.add({front, "all", "", fixed((all - allBefore) / seconds()), fixed(all, 0)});
    }
    std::string latency() const {
        char const* const metric = "vellum_decision_duration_seconds";
        std::string text = "LATENCY";
        Json const& samples = m_now.samples(metric);
        if (samples.empty()) {
            return text + "  -\n";
        }
        Json buckets = samples.front().at("buckets");
        double total = samples.front().at("count").get<double>();
        if (m_before && !m_before->samples(metric).empty()) {
            Json const& earlier = m_before->samples(metric).front();
            total -= earlier.at("count").get<double>();
            for (std::size_t i = 0; i < buckets.size(); ++i) {
                buckets.at(i).at(1) =
                    buckets.at(i).at(1).get<double>() - earlier.at("buckets").at(i).at(1).get<double>();
            }
        }
        for (auto const& [name, share] : {std::pair("p50", 0.5), {"p99", 0.99}, {"p99.9", 0.999}}) {
            double const time = quantile(buckets, total, share);
            text += std::string("  ") + name + " " + (time < 0 ? "-" : shortDuration(time));
        }
        return text + "\n";
    }
    std::string caches() const {
        Rows rows;
        rows.add({"CACHE", "ENTRIES", "CAPACITY", "FULL", "EVICTIONS/S", "EVICTIONS"});
        for (Json const& sample : m_now.samples("vellum_cache_entries")) {
            Json const& of = sample.at("labels");
            double const capacity = m_now.value("vellum_cache_capacity_entries", of).value_or(0);
            double const share = capacity > 0 ? 100 * sample.at("value").get<double>() / capacity : 0;
            rows.add({label(sample, "cache"), count("vellum_cache_entries", of),
                      count("vellum_cache_capacity_entries", of), fixed(share, 0) + " %",
                      rate("vellum_cache_evictions_total", of), count("vellum_cache_evictions_total", of)});
        }
        return rows.text(1);
    }
    std::string backups() const {
        Rows rows;
        rows.add({"BACKUP", "LAST GOOD", "TOOK", "GOOD", "FAILED"});
        for (Json const& sample : m_now.samples("vellum_backup_age_seconds")) {
            Json const& of = sample.at("labels");
            Json good = of;
            good["outcome"] = "success";
            Json failed = of;
            failed["outcome"] = "failure";
            auto const took = m_now.value("vellum_backup_last_duration_seconds", of);
            rows.add({label(sample, "family"), lastGood(of), took ? shortDuration(*took) : "-",
                      count("vellum_backups_total", good), count("vellum_backups_total", failed)});
        }
        return rows.text(1);
    }
    std::string lastGood(Json const& family) const {
        auto const when = m_now.value("vellum_backup_last_success_timestamp_seconds", family);
        bool const refused = m_now.value("vellum_backup_refused", family).value_or(0) != 0;
        return (when ? durationText(wholeSeconds(m_now.time() - *when)) + " ago" : "none") +
               (refused ? ", NEWER REFUSED" : "");
    }
    std::string families() const {
        return "blocked senders " + count("vellum_blocked_senders") + ", blacklisted subscribers " +
               count("vellum_blacklisted_endpoints", {{"by", "score"}}) + " by score and " +
               count("vellum_blacklisted_endpoints", {{"by", "administrator"}}) + " by an administrator, exempt " +
               count("vellum_exempt_endpoints") + "\n";
    }

    Sample m_now;
    std::optional<Sample> m_before;
};

} // namespace

std::string topText(Json const& answer, Json const* before) {
    return Frame(answer, before).text();
}

std::string shortDuration(double seconds) {
    constexpr double milli = 1e-3;
    constexpr double micro = 1e-6;
    return seconds < milli ? fixed(seconds / micro) + " us"
           : seconds < 1   ? fixed(seconds / milli) + " ms"
                           : fixed(seconds) + " s";
}

double quantile(Json const& buckets, double count, double share) {
    if (count <= 0) {
        return -1;
    }
    double const wanted = share * count;
    double lower = 0;
    double below = 0;
    for (Json const& bucket : buckets) {
        double const upper = bucket.at(0).get<double>();
        double const upTo = bucket.at(1).get<double>();
        if (upTo >= wanted && upTo > below) {
            return lower + (upper - lower) * (wanted - below) / (upTo - below);
        }
        lower = upper;
        below = upTo;
    }
    return lower;
}

} // namespace Vellum::Tools
