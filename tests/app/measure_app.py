"""Start-up and idle figures of the weather app under Xvfb against the local weather service
(scripts/app --measure):
  cold start to a drawn forecast from the network (empty cache) and from the cache, each the
  median of several runs of a new process, from the spawn to the frame after painting, in
  wall time and in the process's CPU time (user and system, all threads) at that frame; the
  CPU time is what a loaded machine does not inflate, so it is the figure to compare across
  runs on a shared machine;
  where the cache start's time goes: the median wall and CPU time at each phase the app
  reports (main entered, texts and locale set up, the library's services registered, GTK
  ready, window built, cache read, window presented, first frame), beside the baseline's;
  idle: CPU time and thread wake-ups (context switches) of the process over 10 s once it has
  settled.
The baseline, measured in the same run the same way, is a GTK 4 program that draws one label:
what any GTK application costs to start here. The load average is printed before and after,
since the wall times depend on it."""
import argparse
import os
import shutil
import statistics
import subprocess
import sys
import tempfile
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from weather_app_test import App, start_service, start_xvfb  # noqa: E402


BASELINE = r"""
#include <gtk/gtk.h>
#include <stdio.h>
#include <time.h>
static long long nanoseconds(clockid_t clock) {
  struct timespec now;
  clock_gettime(clock, &now);
  return (long long)now.tv_sec * 1000000000LL + now.tv_nsec;
}
static void report(const char* kind, const char* name) {
  printf("%s %s %lld %lld\n", kind, name, nanoseconds(CLOCK_MONOTONIC), nanoseconds(CLOCK_PROCESS_CPUTIME_ID));
  fflush(stdout);
}
static void painted(GdkFrameClock* clock, gpointer data) {
  report("drawn", "baseline");
  g_signal_handlers_disconnect_by_func(clock, painted, data);
}
static void activate(GtkApplication* app, gpointer data) {
  report("phase", "gtk");
  GtkWidget* window = gtk_application_window_new(app);
  gtk_window_set_default_size(GTK_WINDOW(window), 760, 620);
  gtk_window_set_child(GTK_WINDOW(window), gtk_label_new("33°F"));
  gtk_window_present(GTK_WINDOW(window));
  report("phase", "presented");
  g_signal_connect(gtk_widget_get_frame_clock(window), "after-paint", G_CALLBACK(painted), NULL);
}
int main(int argc, char** argv) {
  report("phase", "main");
  GtkApplication* app = gtk_application_new("org.example.Baseline", G_APPLICATION_NON_UNIQUE);
  g_signal_connect(app, "activate", G_CALLBACK(activate), NULL);
  char* only[] = {argv[0], NULL};
  return g_application_run(G_APPLICATION(app), 1, only);
}
"""


def build_baseline(folder):
    source = os.path.join(folder, "baseline.c")
    program = os.path.join(folder, "baseline")
    with open(source, "w") as out:
        out.write(BASELINE)
    flags = subprocess.run(["pkg-config", "--cflags", "--libs", "gtk4"], capture_output=True, text=True,
                           check=True).stdout.split()
    subprocess.run(["cc", "-O2", "-o", program, source] + flags, check=True)
    return program


def cpu_seconds(pid):
    with open("/proc/%d/stat" % pid) as stat:
        fields = stat.read().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


def switches(pid):
    """Context switches of each thread, by thread id."""
    counts = {}
    for tid in os.listdir("/proc/%d/task" % pid):
        try:
            with open("/proc/%d/task/%s/status" % (pid, tid)) as status:
                counts[tid] = sum(int(line.split()[1]) for line in status
                                  if line.startswith(("voluntary_ctxt_switches", "nonvoluntary_ctxt_switches")))
        except FileNotFoundError:
            pass
    return counts


def median_at(runs, name, index, drawn=None):
    """The median over `runs` of a phase's (or with `drawn`, a drawn frame's) wall (index 0) or
    CPU (index 1) milliseconds; NaN when some run lacks it."""
    values = [(run.drawn.get(drawn) if drawn else run.phases.get(name)) for run in runs]
    if None in values:
        return float("nan")
    return statistics.median(value[index] for value in values)


def measure_app(program, base, env, cache):
    """A start with an empty cache, then one from what it kept: the two runs."""
    app = App(program, base, dict(env, XDG_CACHE_HOME=cache))
    app.wait_drawn("network")
    time.sleep(0.5)  # the forecast and the icons reach the cache
    app.stop()
    cached = App(program, base, dict(env, XDG_CACHE_HOME=cache))
    cached.wait_drawn("cache")
    cached.stop()
    return app, cached


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--app", required=True)
    parser.add_argument("--kpcore", required=True)
    parser.add_argument("--runs", type=int, default=9)
    parser.add_argument("--renderer", default="cairo")
    parser.add_argument("--compare", help="another build of the app, measured the same way in the same run")
    parser.add_argument("--compare-libraries", help="where the other build's libraries are (LD_LIBRARY_PATH)")
    args = parser.parse_args()

    xvfb, display = start_xvfb()
    service, base = start_service(args.kpcore)
    home = tempfile.mkdtemp(prefix="weather-app-measure-")
    env = dict(os.environ, DISPLAY=display, GDK_BACKEND="x11", GSK_RENDERER=args.renderer, LANG="en_US.UTF-8",
               NO_AT_BRIDGE="1", GTK_A11Y="none", XDG_CONFIG_HOME=home + "/config", XDG_DATA_HOME=home + "/data")
    env.pop("WAYLAND_DISPLAY", None)
    other_env = dict(env, LD_LIBRARY_PATH=args.compare_libraries) if args.compare_libraries else env
    try:
        baseline_program = build_baseline(home)
        load_before = os.getloadavg()[0]
        baseline, network, cached, other_network, other_cached = [], [], [], [], []
        for run in range(args.runs):
            app = App(baseline_program, base, env)
            app.wait_drawn("baseline")
            baseline.append(app)
            app.stop()
            first, second = measure_app(args.app, base, env, "%s/cache-%d" % (home, run))
            network.append(first)
            cached.append(second)
            if args.compare:
                first, second = measure_app(args.compare, base, other_env, "%s/other-cache-%d" % (home, run))
                other_network.append(first)
                other_cached.append(second)
        print("load average %.2f before, %.2f after (%d cores)" % (load_before, os.getloadavg()[0], os.cpu_count()))
        print("cold start to a drawn forecast, median of %d, renderer %s:" % (args.runs, args.renderer))
        print("  %-26s %-26s %s" % ("", "wall ms (min-max)", "CPU ms (min-max)"))
        base_wall = median_at(baseline, None, 0, drawn="baseline")
        base_cpu = median_at(baseline, None, 1, drawn="baseline")
        rows = [("GTK baseline", baseline, "baseline"), ("from the network", network, "network"),
                ("from the cache", cached, "cache")]
        if args.compare:
            rows += [("other build, network", other_network, "network"), ("other build, cache", other_cached, "cache")]
        for name, runs, source in rows:
            if any(source not in run.drawn for run in runs):
                print("  %s: not drawn in some runs" % name)
                continue
            cells = []
            for index, reference in ((0, base_wall), (1, base_cpu)):
                values = [run.drawn[source][index] for run in runs]
                cells.append("%6.1f (%.0f-%.0f) %.2fx" % (statistics.median(values), min(values), max(values),
                                                           statistics.median(values) / reference if reference else 0))
            print("  %-26s %-26s %s" % (name, cells[0], cells[1]))
        print("the cache start by phase, median wall / CPU ms from the spawn:")
        columns = [("app", cached, "cache")] + ([("other build", other_cached, "cache")] if args.compare else [])
        columns.append(("baseline", baseline, "baseline"))
        print("  %-10s" % "" + "".join("%20s" % name for name, _, _ in columns))
        for phase in ("main", "text", "library", "gtk", "window", "cache", "presented", "activated", "drawn"):
            line = "  %-10s" % phase
            for _, runs, source in columns:
                drawn = source if phase == "drawn" else None
                line += "     %6.1f / %6.1f" % (median_at(runs, phase, 0, drawn=drawn),
                                                median_at(runs, phase, 1, drawn=drawn))
            print(line.replace("nan", "  -"))

        app = App(args.app, base, dict(env, XDG_CACHE_HOME=home + "/cache-idle"))
        app.wait_drawn("network")
        time.sleep(7)  # the session's transfer thread ends after 5 s without work
        pid = app.process.pid
        cpu0, before = cpu_seconds(pid), switches(pid)
        time.sleep(10)
        cpu1, after = cpu_seconds(pid), switches(pid)
        app.stop()
        woken = {tid: after[tid] - before[tid] for tid in before if tid in after and after[tid] != before[tid]}
        print("idle over 10 s: %.0f ms CPU; %d wake-ups in %d of %d threads (%d threads ended, %d began)" %
              ((cpu1 - cpu0) * 1000, sum(woken.values()), len(woken), len(before),
               len(set(before) - set(after)), len(set(after) - set(before))))
    finally:
        for process in (service, xvfb):
            if process.poll() is None:
                process.kill()
                process.wait()
        shutil.rmtree(home, ignore_errors=True)
    return 0


if __name__ == "__main__":
    sys.exit(main())
