// Start-up and peak memory of GUI programs under one X server, measured from
// outside and the same way for each: the time from fork to the MapNotify of
// the program's first top-level window, and ru_maxrss after a fixed settle.
//
//   tavelin-bench-startup RUNS SETTLE_MS [--pairs GOAL[,GOAL...]] -- LABEL PROG [ARGS] -- LABEL PROG [ARGS] [-- ...]
//
// The first program is measured against the second; further ones are shown
// for information. With --pairs the programs are compared two by two, the
// n-th pair's start-up ratio against the n-th GOAL. Runs are interleaved,
// after one unmeasured warm-up each. A program is stopped with SIGTERM, so
// that a launcher can take down what it set up, and its process group is
// killed when it has not ended 10 s later.
#include <xcb/xcb.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <poll.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

namespace {

struct TProgram
{
    std::string label;
    std::vector<std::string> args;
    std::vector<double> startMs;
    std::vector<double> rssMiB;
};

struct TSample
{
    bool bOk = false;
    double startMs = 0.0;
    double rssMiB = 0.0;
};

double nowMs()
{
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return ts.tv_sec * 1e3 + ts.tv_nsec / 1e6;
}

double median(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    const size_t mid = values.size() / 2;
    return values.size() % 2 ? values[mid] : (values[mid - 1] + values[mid]) / 2.0;
}

pid_t spawn(const TProgram& program)
{
    const pid_t pid = fork();
    if (pid == 0) {
        setpgid(0, 0);
        std::vector<char*> argv;
        for (const std::string& arg : program.args)
            argv.push_back(const_cast<char*>(arg.c_str()));
        argv.push_back(nullptr);
        execvp(argv[0], argv.data());
        _exit(127);
    }
    return pid;
}

// Waits for the first top-level window to be mapped; false on timeout or exit.
bool waitForMap(xcb_connection_t* conn, pid_t pid, double deadlineMs)
{
    pollfd pfd{xcb_get_file_descriptor(conn), POLLIN, 0};
    while (nowMs() < deadlineMs) {
        while (xcb_generic_event_t* event = xcb_poll_for_event(conn)) {
            const bool bMapped = (event->response_type & 0x7f) == XCB_MAP_NOTIFY
                && !reinterpret_cast<xcb_map_notify_event_t*>(event)->override_redirect;
            free(event);
            if (bMapped)
                return true;
        }
        if (xcb_connection_has_error(conn) || waitpid(pid, nullptr, WNOHANG) == pid)
            return false;
        poll(&pfd, 1, 1);
    }
    return false;
}

void drainEvents(xcb_connection_t* conn)
{
    while (xcb_generic_event_t* event = xcb_poll_for_event(conn))
        free(event);
}

TSample measureOnce(xcb_connection_t* conn, const TProgram& program, int settleMs)
{
    TSample sample;
    drainEvents(conn);
    const double startMs = nowMs();
    const pid_t pid = spawn(program);
    if (pid < 0)
        return sample;
    sample.bOk = waitForMap(conn, pid, startMs + 30000.0);
    sample.startMs = nowMs() - startMs;
    // The same settle for every program: first paint and what follows it.
    usleep(static_cast<useconds_t>(settleMs) * 1000);
    kill(pid, SIGTERM);
    int status = 0;
    rusage usage{};
    const double killMs = nowMs() + 10000.0;
    while (wait4(pid, &status, WNOHANG, &usage) == 0) {
        if (nowMs() > killMs) {
            kill(-pid, SIGKILL);
            wait4(pid, &status, 0, &usage);
            break;
        }
        usleep(1000);
    }
    kill(-pid, SIGKILL);
    sample.rssMiB = usage.ru_maxrss / 1024.0;
    drainEvents(conn);
    return sample;
}

bool parseArgs(int argc, char* argv[], int& runs, int& settleMs, std::vector<double>& goals,
               std::vector<TProgram>& programs)
{
    if (argc < 4)
        return false;
    runs = std::max(1, atoi(argv[1]));
    settleMs = std::max(0, atoi(argv[2]));
    int first = 3;
    if (std::strcmp(argv[3], "--pairs") == 0 && argc > 4) {
        for (char* goal = argv[4]; *goal;) {
            char* end = nullptr;
            goals.push_back(std::strtod(goal, &end));
            if (end == goal || (*end && *end != ','))
                return false;
            goal = *end ? end + 1 : end;
        }
        first = 5;
    }
    for (int i = first; i < argc; ++i) {
        if (std::strcmp(argv[i], "--") == 0) {
            if (i + 2 >= argc)
                return false;
            programs.push_back(TProgram{argv[i + 1], {}, {}, {}});
            ++i;
            continue;
        }
        if (programs.empty())
            return false;
        programs.back().args.push_back(argv[i]);
    }
    return programs.size() >= 2 && (goals.empty() || programs.size() == 2 * goals.size());
}

void printStartRow(const TProgram& subject, const TProgram& reference, double goal)
{
    const double ratio = median(subject.startMs) / median(reference.startMs);
    printf("| Start-up to first map, %s vs %s | %.0f ms | %.0f ms | %.3f | ≤ %g | %s |\n", subject.label.c_str(),
           reference.label.c_str(), median(subject.startMs), median(reference.startMs), ratio, goal,
           ratio <= goal ? "yes" : "**no**");
}

void printRows(const std::vector<TProgram>& programs, const std::vector<double>& goals)
{
    for (size_t pair = 0; pair < goals.size(); ++pair) {
        const TProgram& subject = programs[2 * pair];
        const TProgram& reference = programs[2 * pair + 1];
        printStartRow(subject, reference, goals[pair]);
        printf("| Peak RSS, %s vs %s (information) | %.1f MiB | %.1f MiB | %.3f | — | — |\n", subject.label.c_str(),
               reference.label.c_str(), median(subject.rssMiB), median(reference.rssMiB),
               median(subject.rssMiB) / median(reference.rssMiB));
    }
    if (!goals.empty())
        return;
    const TProgram& subject = programs[0];
    const TProgram& reference = programs[1];
    const double rssRatio = median(subject.rssMiB) / median(reference.rssMiB);
    printStartRow(subject, reference, 1.15);
    printf("| Peak RSS, %s vs %s | %.1f MiB | %.1f MiB | %.3f | ≤ 1.2 | %s |\n", subject.label.c_str(),
           reference.label.c_str(), median(subject.rssMiB), median(reference.rssMiB), rssRatio,
           rssRatio <= 1.2 ? "yes" : "**no**");
    for (size_t i = 2; i < programs.size(); ++i)
        printf("| Start-up and peak RSS, %s (information) | %.0f ms, %.1f MiB | — | — | — | — |\n",
               programs[i].label.c_str(), median(programs[i].startMs), median(programs[i].rssMiB));
}

} // namespace

int main(int argc, char* argv[])
{
    int runs = 0;
    int settleMs = 0;
    std::vector<double> goals;
    std::vector<TProgram> programs;
    if (!parseArgs(argc, argv, runs, settleMs, goals, programs)) {
        fprintf(stderr,
                "usage: %s RUNS SETTLE_MS [--pairs GOAL[,GOAL...]] -- LABEL PROG [ARGS] -- LABEL PROG [ARGS] [-- ...]\n",
                argv[0]);
        return 2;
    }
    int screenNum = 0;
    xcb_connection_t* conn = xcb_connect(nullptr, &screenNum);
    if (xcb_connection_has_error(conn)) {
        fprintf(stderr, "cannot connect to the X server\n");
        return 1;
    }
    const xcb_window_t root = xcb_setup_roots_iterator(xcb_get_setup(conn)).data->root;
    const uint32_t mask = XCB_EVENT_MASK_SUBSTRUCTURE_NOTIFY;
    xcb_change_window_attributes(conn, root, XCB_CW_EVENT_MASK, &mask);
    xcb_flush(conn);

    for (int run = -1; run < runs; ++run) {
        for (TProgram& program : programs) {
            const TSample sample = measureOnce(conn, program, settleMs);
            if (!sample.bOk) {
                fprintf(stderr, "%s: no window was mapped\n", program.label.c_str());
                return 1;
            }
            if (run < 0)
                continue;
            program.startMs.push_back(sample.startMs);
            program.rssMiB.push_back(sample.rssMiB);
            fprintf(stderr, "start-up: %s run %d: %.1f ms, %.1f MiB\n", program.label.c_str(), run + 1,
                    sample.startMs, sample.rssMiB);
        }
    }
    xcb_disconnect(conn);
    printRows(programs, goals);
    return 0;
}
