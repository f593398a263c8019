// Writing a backup's script beside fwrite of the same bytes, and how long the caches' locks are held for it.
//
//   BackupBench [--tuples N]... [--turns N] [--json]
//
// Each writes into a fresh file of the temporary directory: once without waiting for the disk, once with fsync and a
// rename. Ours begins at the caches, so the snapshot and giving back the pinned entries are part of it.
#include "bench/BenchSupport.h"
#include "foundation/AllocatorTuning.h"
#include "foundation/File.h"
#include "greylist/BackupScript.h"
#include "tests/support/TemporaryDirectory.h"

#include <fstream>
#include <iterator>
#include <stdexcept>
#include <unistd.h>

using namespace Vellum;
using namespace Vellum::Bench;
using namespace Vellum::GreyList;

namespace {

struct Caches {
    _TupleCache tuples;
    _DynamicExemptCache exemptions;
};

class BackupBench {
  public:
    BackupBench(Caches const& caches, std::size_t tuples, Options const& options)
        : m_caches(caches), m_tuples(tuples), m_options(options) {
        writeScript(true);
        std::ifstream script(m_script, std::ios::binary);
        m_bytes.assign(std::istreambuf_iterator<char>(script), {});
        m_held.clear();
    }

    void run() {
        for (bool const durable : {false, true}) {
            Comparison comparison;
            for (unsigned int turn = 0; turn < m_options.turns; ++turn) {
                comparison.turn([&] { return writeScript(durable); }, [&] { return writePlain(durable); });
            }
            comparison.print(durable ? "script, with fsync" : "script, without fsync", m_tuples, m_options.json);
        }
        double const most = *std::max_element(m_held.begin(), m_held.end());
        std::printf(m_options.json ? "{\"case\":\"locks held\",\"tuples\":%zu,\"ms\":%.2f,\"most_ms\":%.2f}\n"
                                   : "locks held                         %8zu tuples %9.1f ms  most  %9.1f ms\n",
                    m_tuples, median(m_held), most);
        std::fflush(stdout);
    }

  private:
    double writeScript(bool durable) {
        ::unlink(m_script.c_str());
        return milliseconds([&] {
            File::basic_ofstream<char> out{File::Path(m_script)};
            BackupSnapshot const snapshot(m_caches.tuples, m_caches.exemptions);
            snapshot.write(out);
            m_held.push_back(static_cast<double>(snapshot.nanosecondsHeld()) / 1e6);
            durable ? out.commit() : static_cast<void>(out.flush());
        });
    }
    double writePlain(bool durable) const {
        std::string const target = m_directory.path() + "/plain.sql";
        std::string const temporary = target + ".new";
        ::unlink(target.c_str());
        ::unlink(temporary.c_str());
        return milliseconds([&] {
            std::FILE* const file = std::fopen(temporary.c_str(), "wb");
            bool const written = file != nullptr &&
                                 std::fwrite(m_bytes.data(), 1, m_bytes.size(), file) == m_bytes.size() &&
                                 std::fflush(file) == 0 && (!durable || ::fsync(::fileno(file)) == 0);
            if (file != nullptr) {
                std::fclose(file);
            }
            if (!written || (durable && std::rename(temporary.c_str(), target.c_str()) != 0)) {
                throw std::runtime_error("cannot write " + target);
            }
        });
    }

    Caches const& m_caches;
    std::size_t m_tuples;
    Options const& m_options;
    TemporaryDirectory m_directory;
    std::string const m_script = m_directory.path() + "/greylist.sql";
    std::string m_bytes;
    std::vector<double> m_held; // milliseconds
};

} // namespace

int main(int argc, char** argv) {
    tuneAllocator(argv); // as vellumd does
    SilentLogger const silent;
    Options const options = Options::parse(argc, argv, {100000, 1000000}, 7);
    for (std::size_t const tuples : options.sizes) {
        installConfiguration(tuples);
        Caches caches;
        fill<_TupleCache, TupleId>(caches.tuples, tuples);
        BackupBench(caches, tuples, options).run();
    }
}
