#include "tools/vellumctl/TopCommand.h"

#include "tools/vellumctl/Failure.h"
#include "tools/vellumctl/Screen.h"
#include "tools/vellumctl/TopText.h"

#include <algorithm>
#include <optional>
#include <string>
#include <utility>

namespace Vellum::Tools {
namespace {

using Clock = std::chrono::steady_clock;

Json ask(DaemonPlace const& place) {
    DaemonConnection daemon(place);
    Json answer = daemon.ask(IPC::PduType::adminMetrics);
    failOnError(answer);
    return answer;
}

// The answers of two moments, and the page that they make.
class Pages {
  public:
    explicit Pages(DaemonPlace const& place) : m_place(place), m_now(ask(place)) {}

    std::string page() const { return m_problem + topText(*m_now, m_before ? &*m_before : nullptr); }
    void refresh() {
        try {
            Json answer = ask(m_place);
            m_before = std::exchange(m_now, std::move(answer));
            m_problem.clear();
        } catch (Failure const& failed) {
            m_problem = std::string("NO ANSWER, this page is old: ") + failed.what() + "\n";
        }
    }

  private:
    DaemonPlace const m_place;
    std::optional<Json> m_now;
    std::optional<Json> m_before;
    std::string m_problem;
};

// False when the user has had enough. A change of the terminal's size draws the page anew.
bool waitForNext(Screen& screen, Pages const& pages, Clock::time_point next) {
    for (;;) {
        auto const left = std::chrono::ceil<std::chrono::milliseconds>(next - Clock::now());
        if (left <= std::chrono::milliseconds(0)) {
            return true;
        }
        int const key = screen.awaitKey(left);
        if (key == 'q' || key == 'Q') {
            return false;
        }
        screen.show(pages.page());
    }
}

} // namespace

void showTop(DaemonPlace const& place, TopRequest const& request, Output& output) {
    if (request.once || request.json) {
        Json const answer = ask(place);
        output.write(request.json ? prettyJson(answer) : topText(answer, nullptr));
        output.flush();
        return;
    }
    Pages pages(place);
    Screen screen;
    for (Clock::time_point next = Clock::now();;) {
        screen.show(pages.page());
        next += request.interval;
        next = std::max(next, Clock::now()); // after a long answer
        if (!waitForNext(screen, pages, next)) {
            return;
        }
        pages.refresh();
    }
}

} // namespace Vellum::Tools
