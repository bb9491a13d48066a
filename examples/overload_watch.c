/*
 * A module that hears about overload of the data plane, as one in C uses the agent.
 *
 * It registers its process with the daemon, subscribes with two thresholds, prints overload and recovery as they come
 * and unsubscribes at the end. With --feed it is a data-plane process too: it reports a usage of its own, so that there
 * is something to hear about. Without a daemon it waits for one.
 */
#define _GNU_SOURCE
#include <errno.h>
#include <fcntl.h>
#include <getopt.h>
#include <poll.h>
#include <signal.h>
#include <stdbool.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include "kova/agent_registration.h"
#include "kova/data_plane_cpu.h"
#include "kova/resource_subscription.h"

enum { PROCESS_TYPE = 1, TICK_MS = 200, RETRY_MS = 1000, MOST_FIGURES = 64, EXIT_FAILED = 1, EXIT_USAGE = 2 };

typedef struct Options {
    SubscribeRequest request;
    uint32_t figures[MOST_FIGURES]; /* percent, each reported for stepMs */
    uint32_t figureCount;
    uint32_t stepMs;
} Options;

static volatile sig_atomic_t g_stopped;

static void stop(int number) {
    (void)number;
    g_stopped = 1;
}

static void print_usage(FILE* out) {
    fputs(
        "Usage: overload_watch [options] OVERLOAD RECOVER\n"
        "\n"
        "Prints a line when the data-plane CPU usage reaches OVERLOAD percent, and when it is back at RECOVER or\n"
        "below. Ends on SIGINT and SIGTERM, or when the figures of --feed are used up.\n"
        "\n"
        "  --name NAME    module name to subscribe with, 1 to 31 characters (overload_watch)\n"
        "  --feed LIST    report these figures as this process's own data-plane usage, in percent: \"30,95,20\"\n"
        "  --step SECONDS how long each figure of the list is reported (3)\n"
        "  --help\n"
        "\n"
        "Exit status: 0 ended as asked; 1 cannot register; 2 wrong arguments.\n",
        out);
}

/* Reads a number up to `most` and leaves *text behind it. */
static bool take_number(const char** text, uint32_t most, uint32_t* number) {
    if (**text < '0' || **text > '9') return false;
    char* end = NULL;
    errno = 0;
    const unsigned long value = strtoul(*text, &end, 10);
    if (errno != 0 || value > most) return false;
    *text = end;
    *number = (uint32_t)value;
    return true;
}

static bool parse_number(const char* text, uint32_t most, uint32_t* number) {
    return take_number(&text, most, number) && *text == '\0';
}

static bool parse_figures(const char* text, Options* options) {
    for (options->figureCount = 0; options->figureCount < MOST_FIGURES; ++text) {
        if (!take_number(&text, 100, &options->figures[options->figureCount])) return false;
        ++options->figureCount;
        if (*text == '\0') return true;
        if (*text != ',') return false;
    }
    return false;
}

static bool parse_name(const char* text, Options* options) {
    const size_t length = strlen(text);
    if (length == 0 || length >= sizeof options->request.moduleName) return false;
    memcpy(options->request.moduleName, text, length + 1);
    return true;
}

/* -1 to go on, else the exit status. */
static int parse_options(int argc, char** argv, Options* options) {
    static const struct option names[] = {{"name", required_argument, NULL, 'n'},
                                          {"feed", required_argument, NULL, 'f'},
                                          {"step", required_argument, NULL, 's'},
                                          {"help", no_argument, NULL, 'h'},
                                          {NULL, 0, NULL, 0}};
    uint32_t step = 3;
    bool valid = parse_name("overload_watch", options);
    for (int option = 0; valid && (option = getopt_long(argc, argv, "", names, NULL)) != -1;) {
        if (option == 'h') {
            print_usage(stdout);
            return EXIT_SUCCESS;
        }
        if (option == 'n')
            valid = parse_name(optarg, options);
        else if (option == 'f')
            valid = parse_figures(optarg, options);
        else if (option == 's')
            valid = parse_number(optarg, 3600, &step) && step != 0;
        else
            valid = false;
    }
    SubscribeRequest* const request = &options->request;
    valid = valid && argc - optind == 2 && parse_number(argv[optind], 100, &request->overload) &&
            parse_number(argv[optind + 1], 100, &request->recover) && request->recover < request->overload;
    if (!valid) {
        fputs("overload_watch: wrong arguments; OVERLOAD is at most 100 and RECOVER below it. See --help.\n", stderr);
        return EXIT_USAGE;
    }
    options->stepMs = step * 1000;
    return -1;
}

/*
 * The hook. All modules of the process wait for it, so it only hands the event on: the pipe never blocks, and an event
 * that finds it full is one of thousands that nobody has looked at.
 */
static uint32_t on_usage(const SubscribeEvent* event, void* pipeEnd) {
    const ssize_t written = write(*(const int*)pipeEnd, event, sizeof *event);
    return written == (ssize_t)sizeof *event ? 0 : 1;
}

/* The hook is called for every value; what matters here is when the state changes. */
static void print_changes(int pipeEnd, const SubscribeRequest* request, uint32_t* state) {
    SubscribeEvent event;
    while (read(pipeEnd, &event, sizeof event) == (ssize_t)sizeof event) {
        if (event.state == *state) continue;
        *state = event.state;
        if (event.state != 0) {
            printf("overload: data-plane CPU at %u %%, threshold %u %%\n", event.value, request->overload);
        } else {
            printf("recovered: data-plane CPU at %u %%, threshold %u %%\n", event.value, request->recover);
        }
    }
}

static int64_t now_ms(void) {
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return (int64_t)now.tv_sec * 1000 + now.tv_nsec / 1000000;
}

/* False when the figures are used up. Again and again, since a report before the region exists is dropped. */
static bool feed(const Options* options, int64_t elapsedMs) {
    if (options->figureCount == 0) return true;
    const int64_t step = elapsedMs / options->stepMs;
    if (step >= options->figureCount) return false;
    KOVA_UpdateDataPlaneProcessCpuUsage((uint32_t)getpid(), options->figures[step] * 100);
    return true;
}

static void watch(const Options* options, int pipeEnd, const sigset_t* whileWaiting) {
    const struct timespec tick = {.tv_nsec = TICK_MS * 1000000L};
    bool subscribed = false;
    int64_t attempted = now_ms() - RETRY_MS;
    uint32_t state = 0;
    while (g_stopped == 0) {
        /* Fails while no daemon can be asked. */
        if (!subscribed && now_ms() - attempted >= RETRY_MS) {
            attempted = now_ms();
            subscribed = KOVA_SubscribeResource(&options->request) == 0;
            if (subscribed) printf("subscribed as %s\n", options->request.moduleName);
        }
        if (subscribed && !feed(options, now_ms() - attempted)) break;
        struct pollfd events = {.fd = pipeEnd, .events = POLLIN};
        if (ppoll(&events, 1, &tick, whileWaiting) > 0) print_changes(pipeEnd, &options->request, &state);
    }
    if (subscribed && KOVA_UnSubscribeResource(&options->request) == 0) puts("unsubscribed");
}

int main(int argc, char** argv) {
    static Options options;
    const int status = parse_options(argc, argv, &options);
    if (status >= 0) return status;
    setvbuf(stdout, NULL, _IOLBF, 0);

    /* Blocked before the agent's threads exist, so that the two signals arrive here and nowhere else. */
    sigset_t stopping;
    sigset_t whileWaiting;
    sigemptyset(&stopping);
    sigaddset(&stopping, SIGINT);
    sigaddset(&stopping, SIGTERM);
    sigprocmask(SIG_BLOCK, &stopping, &whileWaiting);
    const struct sigaction action = {.sa_handler = stop};
    sigaction(SIGINT, &action, NULL);
    sigaction(SIGTERM, &action, NULL);

    static int ends[2];
    if (pipe2(ends, O_CLOEXEC | O_NONBLOCK) != 0) {
        perror("overload_watch: pipe");
        return EXIT_FAILED;
    }
    options.request.publishHook = on_usage;
    options.request.hookArg = &ends[1];
    if (KovaAgentRegisterInit(PROCESS_TYPE) != 0) {
        fputs("overload_watch: cannot register this process with kovad\n", stderr);
        return EXIT_FAILED;
    }
    watch(&options, ends[0], &whileWaiting);
    return EXIT_SUCCESS;
}
