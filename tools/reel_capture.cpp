// A headless host: plays the show in the current folder exactly like the program does, but
// deterministically and as fast as it can. Per displayed frame it advances the music player
// by 1/60 s through the same mixing code as the audio callback (367 or 368 stereo samples, so
// that 60 frames are exactly 22,050 samples), runs the update passes of a frame and one render
// pass, flips the video plane and composes both planes. It is how tests run whole shows, and
// how a person makes a video of one (a video file through ffmpeg, or PNG frames and a WAV of
// the music).
//
// Cadence: the program's loop never sleeps, so it runs many update passes before each render
// pass, and scenes that act only while few update passes have run (video_clear) never act
// live. Three update passes per frame (after the engine's init passes, which live are over
// before the first frame is due) is the least cadence at which every scene's render calls see
// what they see live: a scene comes into its span in the first update pass after the clock has
// moved, so it has had three update calls by the render pass. More only costs time (scenes
// that draw in update passes draw each time). One update pass per frame is kept as an option.
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "bitmap.h"
#include "capture_report.h"
#include "diag.h"
#include "display.h"
#include "memarena.h"
#include "music.h"
#include "reel.h"
#include "tool.h"

namespace {

constexpr uint64_t CAPTURE_PLATFORM_ARENA_SIZE = 10ull << 20;
constexpr uint32_t CAPTURE_FRAMES_PER_SECOND = 60;
constexpr uint32_t CAPTURE_MAX_PNG_AT = 256;
constexpr uint32_t CAPTURE_MAX_FRAME_SAMPLES = MUSIC_SAMPLE_RATE / CAPTURE_FRAMES_PER_SECOND + 1;
constexpr uint64_t CAPTURE_UPDATES_PER_FRAME_DEFAULT = 3;
constexpr uint64_t CAPTURE_UPDATES_PER_FRAME_MAX = 1000;
constexpr uint32_t CAPTURE_WAV_HEADER_BYTES = 44;
constexpr uint64_t CAPTURE_PROGRESS_NS = 500000000;  // progress line twice a second
constexpr int CAPTURE_EXEC_FAILED = 127;             // the shell's status for a program not found
constexpr uint64_t CAPTURE_SHEET_EVERY_MS_DEFAULT = 4000;
constexpr uint64_t CAPTURE_SHEET_EVERY_MS_MIN = 1000;  // so that no two pictures carry the same m:ss
constexpr uint64_t CAPTURE_SHEET_EVERY_MS_MAX = 600000;
constexpr uint32_t CAPTURE_SHEET_MAX_PICTURES = 512;   // 85 minutes of show at one picture in 10 s
constexpr uint64_t CAPTURE_MAX_COST_FRAMES = 1ull << 22;  // 19 hours of show; the frame costs kept for the p99

const char CAPTURE_USAGE[] =
    "usage: reel_capture [--frames N] [--updates-per-frame N] [--png-every K] [--png-at F]... [--out DIR]\n"
    "                    [--wav FILE] [--video FILE|-] [--contact-sheet FILE [--every MS]] [--hashes FILE]\n"
    "                    [--costs FILE] [--stats]\n"
    "Plays the show of assets/reel/le/ in the current folder headless, 60 frames per second of music.\n"
    "  --frames N             stop after N frames (otherwise when the show ends or nothing more can happen)\n"
    "  --updates-per-frame N  update passes before each render pass, 1 to 1000 (default 3: what the\n"
    "                         program shows, whose loop runs many update passes per frame)\n"
    "  --png-every K          write every K-th frame's 640 x 480 composition as DIR/frame_NNNNNN.png\n"
    "  --png-at F             write frame F (frames count from 0; may be repeated)\n"
    "  --out DIR              folder for the PNG frames, created if needed (default: the current folder)\n"
    "  --wav FILE             write the mixed music (22,050 Hz, 16-bit stereo)\n"
    "  --video FILE           encode a video at 60 fps with the music through ffmpeg (H.264 and AAC;\n"
    "                         the container follows FILE's extension: .mp4, .mkv, .mov); - writes\n"
    "                         Matroska to standard output (messages then go to standard error)\n"
    "  --contact-sheet FILE   write one PNG of 160 x 120 pictures of the show, one every --every MS\n"
    "                         milliseconds of show time (1000 to 600000, default 4000), six to a row,\n"
    "                         each with its time (m:ss) under it\n"
    "  --hashes FILE          write a line per frame: its number and the hash of its composition\n"
    "  --costs FILE           write a line per frame: its number, its cost in ms (as --stats counts it),\n"
    "                         the ms of its update passes, of its render pass and of the flip and\n"
    "                         composition, and the scene function that cost most in it (or none)\n"
    "  --stats                print the engine's statistics with every row named by its scene function,\n"
    "                         which scene functions were called, the hashes of all frames and of the\n"
    "                         music, the arenas' use, and last the cost of the work per frame:\n"
    "                         frame ms: mean A p99 B max C (slowest: SCENE)\n"
    "Progress (frame, show time, speed) goes to standard error while a video is made or when standard\n"
    "error is a terminal.\n";

const tool_info CAPTURE_TOOL = {"reel_capture", CAPTURE_USAGE};

struct capture_options {
    uint64_t frames;  // 0: until the show quits
    uint64_t updates_per_frame;
    uint64_t png_every;
    uint64_t png_at[CAPTURE_MAX_PNG_AT];
    uint32_t png_at_count;
    const char* out_dir;
    const char* wav_path;
    const char* video_path;
    const char* sheet_path;
    uint64_t sheet_every_ms;
    const char* hashes_path;
    const char* costs_path;
    bool stats;
};

capture_options capture_parse(int argc, char** argv)
{
    capture_options o;
    memset(&o, 0, sizeof(o));
    o.out_dir = ".";
    o.updates_per_frame = CAPTURE_UPDATES_PER_FRAME_DEFAULT;
    o.sheet_every_ms = CAPTURE_SHEET_EVERY_MS_DEFAULT;
    bool every_given = false;
    for (int i = 1; i < argc; i++) {
        const char* a = argv[i];
        if (!strcmp(a, "--frames")) {
            o.frames = tool_parse_u64(a, tool_option_value(argc, argv, &i), 1, UINT64_MAX);
        } else if (!strcmp(a, "--updates-per-frame")) {
            o.updates_per_frame =
                tool_parse_u64(a, tool_option_value(argc, argv, &i), 1, CAPTURE_UPDATES_PER_FRAME_MAX);
        } else if (!strcmp(a, "--png-every")) {
            o.png_every = tool_parse_u64(a, tool_option_value(argc, argv, &i), 1, UINT64_MAX);
        } else if (!strcmp(a, "--png-at")) {
            if (o.png_at_count == CAPTURE_MAX_PNG_AT)
                tool_usage_error("at most %u --png-at options", CAPTURE_MAX_PNG_AT);
            o.png_at[o.png_at_count++] = tool_parse_u64(a, tool_option_value(argc, argv, &i), 0, UINT64_MAX);
        } else if (!strcmp(a, "--out")) {
            o.out_dir = tool_option_value(argc, argv, &i);
        } else if (!strcmp(a, "--wav")) {
            o.wav_path = tool_option_value(argc, argv, &i);
        } else if (!strcmp(a, "--video")) {
            o.video_path = tool_option_value(argc, argv, &i);
        } else if (!strcmp(a, "--contact-sheet")) {
            o.sheet_path = tool_option_value(argc, argv, &i);
        } else if (!strcmp(a, "--every")) {
            o.sheet_every_ms =
                tool_parse_u64(a, tool_option_value(argc, argv, &i), CAPTURE_SHEET_EVERY_MS_MIN, CAPTURE_SHEET_EVERY_MS_MAX);
            every_given = true;
        } else if (!strcmp(a, "--hashes")) {
            o.hashes_path = tool_option_value(argc, argv, &i);
        } else if (!strcmp(a, "--costs")) {
            o.costs_path = tool_option_value(argc, argv, &i);
        } else if (!strcmp(a, "--stats")) {
            o.stats = true;
        } else {
            tool_usage_error("unknown argument \"%s\"", a);
        }
    }
    if (!o.out_dir[0] || (o.video_path && !o.video_path[0]) || (o.sheet_path && !o.sheet_path[0]) ||
        (o.hashes_path && !o.hashes_path[0]) || (o.costs_path && !o.costs_path[0]))
        tool_usage_error("an empty file or folder name");
    if (every_given && !o.sheet_path)
        tool_usage_error("--every sets the spacing of --contact-sheet, which is not given");
    return o;
}

bool capture_png_due(const capture_options* o, uint64_t frame)
{
    if (o->png_every && frame % o->png_every == 0)
        return true;
    for (uint32_t i = 0; i < o->png_at_count; i++)
        if (o->png_at[i] == frame)
            return true;
    return false;
}

void capture_put_u32(uint8_t* p, uint32_t v)
{
    p[0] = (uint8_t)v, p[1] = (uint8_t)(v >> 8), p[2] = (uint8_t)(v >> 16), p[3] = (uint8_t)(v >> 24);
}

void capture_put_u16(uint8_t* p, uint16_t v) { p[0] = (uint8_t)v, p[1] = (uint8_t)(v >> 8); }

// The RIFF header of 16-bit stereo PCM; the sizes are filled in when the capture ends.
void capture_wav_header(uint8_t* h, uint32_t data_bytes)
{
    memcpy(h, "RIFFxxxxWAVEfmt ", 16);
    capture_put_u32(h + 4, CAPTURE_WAV_HEADER_BYTES - 8 + data_bytes);
    capture_put_u32(h + 16, 16);
    capture_put_u16(h + 20, 1);  // PCM
    capture_put_u16(h + 22, (uint16_t)MUSIC_CHANNELS);
    capture_put_u32(h + 24, MUSIC_SAMPLE_RATE);
    capture_put_u32(h + 28, MUSIC_SAMPLE_RATE * MUSIC_CHANNELS * 2);
    capture_put_u16(h + 32, (uint16_t)(MUSIC_CHANNELS * 2));
    capture_put_u16(h + 34, 16);
    memcpy(h + 36, "data", 4);
    capture_put_u32(h + 40, data_bytes);
}

void capture_save_png(const uint32_t* rgba, uint64_t frame, const char* out_dir, xmemarena* tmp)
{
    const uint64_t mark = xmemarena_get_sp(tmp);
    bitmap* bm = bitmap_create(tmp, DISPLAY_OUTPUT_WIDTH, DISPLAY_OUTPUT_HEIGHT, BITMAP_SRGB | BITMAP_CHANNELS_3);
    for (uint32_t y = 0; y < DISPLAY_OUTPUT_HEIGHT; y++)
        for (uint32_t x = 0; x < DISPLAY_OUTPUT_WIDTH; x++) {
            const uint32_t v = rgba[y * DISPLAY_OUTPUT_WIDTH + x];  // R << 24 | G << 16 | B << 8 | 255
            uint8_t* p = bitmap_pixel(bm, x, y);
            p[0] = (uint8_t)(v >> 24), p[1] = (uint8_t)(v >> 16), p[2] = (uint8_t)(v >> 8);
        }
    char path[TOOL_PATH_MAX];
    char name[32];
    snprintf(name, sizeof(name), "frame_%06llu.png", (unsigned long long)frame);
    tool_join_path(path, out_dir, name);
    tool_save_png(bm, path, tmp);
    xmemarena_set_sp(tmp, mark);
}

// ---- video through ffmpeg ----

// Pass one pipes raw frames into an ffmpeg that encodes them to a silent temporary file; the
// music is only complete when the show has ended, so pass two muxes it in (copying the video).
// Two passes never block on each other the way one ffmpeg reading two pipes can.
struct capture_video {
    pid_t encoder;
    FILE* frames;  // the encoder's standard input
    int stdout_fd;  // where the finished video goes when it is "-"
    tool_output silent;
    tool_output final_file;
    const char* path;
};

// Runs argv with the given standard input and output (-1: inherited); the child's status 127
// means the program was not found.
pid_t capture_spawn(const char* const* argv, int stdin_fd, int stdout_fd, int close_fd)
{
    fflush(stdout);
    fflush(stderr);
    const pid_t pid = fork();
    if (pid < 0)
        tool_fail("cannot start %s: %s", argv[0], strerror(errno));
    if (pid == 0) {
        if (stdin_fd >= 0)
            dup2(stdin_fd, 0);
        if (stdout_fd >= 0)
            dup2(stdout_fd, 1);
        if (close_fd >= 0)
            close(close_fd);
        execvp(argv[0], (char* const*)argv);
        _exit(CAPTURE_EXEC_FAILED);
    }
    return pid;
}

int capture_wait(pid_t pid)
{
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

void capture_need_ffmpeg()
{
    const int null_fd = open("/dev/null", O_WRONLY);
    const char* const argv[] = {"ffmpeg", "-version", nullptr};
    const int status = capture_wait(capture_spawn(argv, -1, null_fd, -1));
    close(null_fd);
    if (status == CAPTURE_EXEC_FAILED)
        tool_fail("--video needs ffmpeg, which is not installed (on Debian: sudo apt-get install ffmpeg)");
}

// Temporary files of the video go beside it, or into $TMPDIR for standard output.
void capture_temp_base(char* base, const char* path)
{
    if (strcmp(path, "-") != 0) {
        snprintf(base, TOOL_PATH_MAX, "%s", path);
        return;
    }
    const char* dir = getenv("TMPDIR");
    snprintf(base, TOOL_PATH_MAX, "%s/reel_capture", dir && dir[0] ? dir : "/tmp");
}

void capture_video_begin(capture_video* v, const char* path)
{
    memset(v, 0, sizeof(*v));
    v->path = path;
    v->stdout_fd = -1;
    capture_need_ffmpeg();
    if (!strcmp(path, "-")) {
        // the video owns standard output; everything the tool and the engine print goes to stderr
        v->stdout_fd = dup(1);
        dup2(2, 1);
    } else {
        tool_output_begin(&v->final_file, path);  // first, so that a path that cannot be written is named
    }
    char base[TOOL_PATH_MAX];
    capture_temp_base(base, path);
    char name[TOOL_PATH_MAX + 16];
    snprintf(name, sizeof(name), "%s.silent.mkv", base);
    tool_output_begin(&v->silent, name);
    signal(SIGPIPE, SIG_IGN);  // an encoder that stops shows as a failed write, not a silent death
    int fds[2];
    if (pipe(fds) != 0)
        tool_fail("cannot make a pipe for ffmpeg: %s", strerror(errno));
    char size[32];
    snprintf(size, sizeof(size), "%ux%u", DISPLAY_OUTPUT_WIDTH, DISPLAY_OUTPUT_HEIGHT);
    char rate[16];
    snprintf(rate, sizeof(rate), "%u", CAPTURE_FRAMES_PER_SECOND);
    // the composition's 32-bit values R << 24 | G << 16 | B << 8 | 255 lie in memory as A, B, G, R
    const char* const argv[] = {"ffmpeg", "-hide_banner", "-loglevel", "error", "-y", "-f", "rawvideo",
                                "-pixel_format", "abgr", "-video_size", size, "-framerate", rate, "-i", "-",
                                "-c:v", "libx264", "-preset", "fast", "-crf", "18", "-pix_fmt", "yuv420p",
                                "-f", "matroska", v->silent.temp, nullptr};
    v->encoder = capture_spawn(argv, fds[0], -1, fds[1]);
    close(fds[0]);
    v->frames = fdopen(fds[1], "wb");
}

void capture_video_frame(capture_video* v, const uint32_t* rgba)
{
    const size_t bytes = (size_t)DISPLAY_OUTPUT_WIDTH * DISPLAY_OUTPUT_HEIGHT * 4;
    if (fwrite(rgba, 1, bytes, v->frames) != bytes)
        tool_fail("ffmpeg stopped taking frames (its messages are above)");
}

void capture_video_end(capture_video* v, const char* wav_path)
{
    const bool sent = fclose(v->frames) == 0;
    v->frames = nullptr;
    if (capture_wait(v->encoder) != 0 || !sent)
        tool_fail("ffmpeg could not encode the frames into \"%s\" (its messages are above)", v->silent.temp);
    const bool to_stdout = v->stdout_fd >= 0;
    const char* out = to_stdout ? "pipe:1" : v->final_file.temp;
    const char* const argv[] = {"ffmpeg", "-hide_banner", "-loglevel", "error", "-nostdin", "-y",
                                "-i", v->silent.temp, "-i", wav_path, "-map", "0:v", "-map", "1:a",
                                "-c:v", "copy", "-c:a", "aac", "-b:a", "192k",
                                to_stdout ? "-f" : "-map_metadata", to_stdout ? "matroska" : "-1", out, nullptr};
    const int status = capture_wait(capture_spawn(argv, -1, v->stdout_fd, -1));
    tool_output_abandon(&v->silent);
    if (status != 0)
        tool_fail("ffmpeg could not write \"%s\" (its messages are above)", v->path);
    if (!to_stdout)
        tool_output_commit(&v->final_file);
}

// ---- progress ----

struct capture_progress {
    bool shown;
    bool terminal;
    uint64_t start_ns;
    uint64_t last_ns;
};

void capture_progress_line(capture_progress* p, uint64_t frame, bool last)
{
    const uint64_t now = prof_monotonic_ns();
    if (!last && now - p->last_ns < CAPTURE_PROGRESS_NS)
        return;
    if (frame <= CAPTURE_FRAMES_PER_SECOND && !p->shown)
        return;  // a capture of a second or less says nothing
    p->last_ns = now;
    p->shown = true;
    const double show_s = (double)frame / CAPTURE_FRAMES_PER_SECOND;
    const double wall_s = (double)(now - p->start_ns) * 1e-9;
    fprintf(stderr, "%sframe %llu, show time %.1f s, speed %.2fx%s", p->terminal ? "\r" : "",
            (unsigned long long)frame, show_s, wall_s > 0.0 ? show_s / wall_s : 0.0,
            last || !p->terminal ? "\n" : "");
    fflush(stderr);
}

// Without --frames the capture ends with the show: when the show quits (its fade_out_music row
// has ended), or once nothing more can happen, which the live program does not look for (it
// keeps running until the viewer quits): the clock is past the end of every row and the music
// has run out, or no music was started after a whole frame of sequencer passes, so the clock
// stays where it is. Null while the show goes on, else why it is over.
const char* capture_show_over()
{
    const reel_engine* e = &demosys_global.engine;
    if (!e->init_done)
        return nullptr;
    if (!music_global.started.load(std::memory_order_relaxed))
        return "the script started no music, so the show clock cannot move";
    const int64_t c = music_sample_counter();
    const int64_t played = c - music_global.lead_in.load(std::memory_order_relaxed);
    if (played < (int64_t)music_global.length.load(std::memory_order_relaxed))
        return nullptr;
    for (uint32_t i = 0; i < e->sequence.row_count; i++)
        if (c <= e->sequence.rows[i].end)
            return nullptr;
    return "every row of the script has ended and the music has run out";
}

// ---- statistics ----

// The cost of a displayed frame is the TSC time of its update passes (as many as
// --updates-per-frame says), its render pass, the flip and the composition: the work the live
// program does per frame, but for the many more update passes it runs. The engine's init passes are
// left out (live they are over before the first frame is due), and so is what only the capture
// does (PNG, WAV and video writing, hashing, this bookkeeping). A frame's slowest scene function
// is the table function whose rows' calls (run, load and end calls, and the loading of their
// scene records) cost most in that frame, summed over the rows that use it; a load_sync row
// thus counts the scenes it loads.
struct capture_stats {
    uint64_t* frame_cycles;   // one per displayed frame, at most CAPTURE_MAX_COST_FRAMES
    uint64_t* frame_cpu_ns;   // the same frames in this thread's processor time
    uint64_t frame_count;
    uint64_t* row_cycles;     // per row: the cycles of its calls up to the end of the previous frame
    uint64_t* row_delta;      // per row: this frame's
    uint64_t* function_cycles;  // per scene table function: this frame's, while summing
    uint64_t slowest_cycles;
    uint32_t slowest_function;  // reel_scene_table_count while no scene has cost anything
    uint64_t frames_hash;
    uint64_t audio_hash;
    uint64_t audio_samples;
};

uint64_t capture_thread_ns()
{
    timespec t;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
    return (uint64_t)t.tv_sec * 1000000000ull + (uint64_t)t.tv_nsec;
}

uint64_t capture_row_cycles(const reel_scene* s)
{
    const pass_timer* timers[3] = {&s->run_timer, &s->load_timer, &s->end_timer};
    uint64_t sum = s->load_cycles;
    for (const pass_timer* t : timers)
        sum += t->regular_cycles + t->vbl_cycles;
    return sum;
}

uint32_t capture_function_index(const reel_scene* s)
{
    for (uint32_t k = 0; k < reel_scene_table_count; k++)
        if (reel_scene_table[k].run == s->run)
            return k;
    return reel_scene_table_count;
}

void capture_stats_begin(capture_stats* st, xmemarena* arena)
{
    memset(st, 0, sizeof(*st));
    st->frame_cycles = (uint64_t*)xmemarena_push_align(arena, CAPTURE_MAX_COST_FRAMES * 8, 64);
    st->frame_cpu_ns = (uint64_t*)xmemarena_push_align(arena, CAPTURE_MAX_COST_FRAMES * 8, 64);
    st->function_cycles = (uint64_t*)xmemarena_push_zero(arena, (reel_scene_table_count + 1) * 8);
    st->slowest_function = reel_scene_table_count;
    st->frames_hash = CAPTURE_HASH_SEED;
    st->audio_hash = CAPTURE_HASH_SEED;
}

// A line-per-frame output file (--hashes, --costs); its folder is made as the sheet's is.
void capture_output_open(tool_output* out, const char* path)
{
    tool_make_parent_dir(path);
    tool_output_open(out, path);
}

// Which table function's rows cost most in the frame whose row costs are in row_delta.
uint32_t capture_frame_slowest(capture_stats* st, const reel_engine* e)
{
    memset(st->function_cycles, 0, (reel_scene_table_count + 1) * 8);
    for (uint32_t i = 0; i < e->scene_count; i++)
        if (st->row_delta[i])
            st->function_cycles[capture_function_index(&e->scenes[i])] += st->row_delta[i];
    return capture_slowest_index(st->function_cycles, reel_scene_table_count);
}

// After a frame's passes: its cost, and which function cost most if it is the slowest so far.
void capture_stats_frame(capture_stats* st, const reel_engine* e, uint64_t cycles, uint64_t cpu_ns, xmemarena* arena)
{
    if (!st->row_cycles) {  // the rows are known once the init passes have run
        st->row_cycles = (uint64_t*)xmemarena_push_zero(arena, (e->scene_count + 1) * 8);
        st->row_delta = (uint64_t*)xmemarena_push_zero(arena, (e->scene_count + 1) * 8);
    }
    if (st->frame_count < CAPTURE_MAX_COST_FRAMES) {
        st->frame_cycles[st->frame_count] = cycles;
        st->frame_cpu_ns[st->frame_count] = cpu_ns;
    }
    st->frame_count++;
    for (uint32_t i = 0; i < e->scene_count; i++) {
        const uint64_t now = capture_row_cycles(&e->scenes[i]);
        st->row_delta[i] = now - st->row_cycles[i];
        st->row_cycles[i] = now;
    }
    if (cycles <= st->slowest_cycles)
        return;
    st->slowest_cycles = cycles;
    st->slowest_function = capture_frame_slowest(st, e);
}

// Whether a row of the script bound to table function k had a run call.
bool capture_function_called(const reel_engine* e, uint32_t k)
{
    for (uint32_t i = 0; i < e->scene_count; i++) {
        const reel_scene* s = &e->scenes[i];
        if (s->run == reel_scene_table[k].run && s->update_runs + s->render_runs > 0)
            return true;
    }
    return false;
}

// The engine's report with every row named by its scene function, then the description's
// scene name if it gives one; and which of the table's functions had a run call.
void capture_print_engine(const reel_engine* e, xmemarena* arena)
{
    const uint64_t mark = xmemarena_get_sp(arena);
    auto** labels = (const char**)xmemarena_push_zero(arena, (e->scene_count + 1) * sizeof(char*));
    for (uint32_t i = 0; i < e->scene_count; i++) {
        const reel_sequence_row* row = &e->sequence.rows[i];
        const reel_scene* s = &e->scenes[i];
        labels[i] = s->name && strcmp(s->name, row->function) != 0 ? memprintf(arena, "%s %s", row->function, s->name)
                                                                   : row->function;
    }
    reel_print_statistics(e, labels);
    xmemarena_set_sp(arena, mark);
    uint32_t called = 0;
    for (uint32_t k = 0; k < reel_scene_table_count; k++)
        called += capture_function_called(e, k);
    printf("scene functions called: %u of %u\n", called, reel_scene_table_count);
    for (int want = 1; want >= 0; want--) {
        printf(want ? "called:" : "not called:");
        for (uint32_t k = 0; k < reel_scene_table_count; k++)
            if (capture_function_called(e, k) == (bool)want)
                printf(" %s", reel_scene_table[k].name);
        printf("\n");
    }
}

void capture_print_cost(capture_stats* st)
{
    const uint64_t kept = st->frame_count < CAPTURE_MAX_COST_FRAMES ? st->frame_count : CAPTURE_MAX_COST_FRAMES;
    if (kept < st->frame_count)
        printf("the frame costs below are of the first %llu frames\n", (unsigned long long)kept);
    // on a shared machine the wall time of a frame includes the time other programs had the
    // processor; this thread's own processor time does not, which tells the two apart
    const capture_cost_summary cpu = capture_cost_summarise(st->frame_cpu_ns, kept);
    printf("frame processor ms: mean %.2f p99 %.2f max %.2f\n", cpu.mean * 1e-6, (double)cpu.p99 * 1e-6,
           (double)cpu.max * 1e-6);
    const capture_cost_summary sum = capture_cost_summarise(st->frame_cycles, kept);
    const double ms_per_cycle = prof_cycles_to_ms(1000000) / 1000000.0;
    printf("frame ms: mean %.2f p99 %.2f max %.2f (slowest: %s)\n", sum.mean * ms_per_cycle,
           (double)sum.p99 * ms_per_cycle, (double)sum.max * ms_per_cycle,
           st->slowest_function < reel_scene_table_count ? reel_scene_table[st->slowest_function].name : "none");
}

// ---- contact sheet ----

struct capture_sheet {
    uint8_t* thumbs;  // CAPTURE_SHEET_MAX_PICTURES thumbnails
    uint32_t seconds[CAPTURE_SHEET_MAX_PICTURES];
    uint32_t count;
    uint64_t every_ms;
    bool full_said;
};

// A picture is due at the first frame at or after each multiple of the spacing.
void capture_sheet_frame(capture_sheet* sh, uint64_t frame, const uint32_t* composed)
{
    const uint64_t ms = sh->count * sh->every_ms;
    if (frame * 1000 < ms * CAPTURE_FRAMES_PER_SECOND)
        return;
    if (sh->count == CAPTURE_SHEET_MAX_PICTURES) {
        if (!sh->full_said)
            printf("the contact sheet holds %u pictures; later times are left out\n", CAPTURE_SHEET_MAX_PICTURES);
        sh->full_said = true;
        return;
    }
    contact_sheet_thumbnail(sh->thumbs + (size_t)sh->count * CONTACT_SHEET_THUMB_BYTES, composed);
    sh->seconds[sh->count++] = (uint32_t)(ms / 1000);
}

}  // namespace

int main(int argc, char** argv)
{
    tool_begin(&CAPTURE_TOOL, argc, argv);
    const capture_options opt = capture_parse(argc, argv);
    if (opt.png_every || opt.png_at_count)
        tool_make_dir(opt.out_dir);
    capture_video video;
    if (opt.video_path)
        capture_video_begin(&video, opt.video_path);
    tool_output wav;  // --wav, or the music a video needs under a temporary name
    const bool want_wav = opt.wav_path || opt.video_path;
    if (opt.wav_path) {
        tool_output_open(&wav, opt.wav_path);
    } else if (opt.video_path) {
        char name[TOOL_PATH_MAX + 16];
        char base[TOOL_PATH_MAX];
        capture_temp_base(base, opt.video_path);
        snprintf(name, sizeof(name), "%s.music.wav", base);
        tool_output_open(&wav, name);
    }
    uint8_t header[CAPTURE_WAV_HEADER_BYTES];
    if (want_wav) {
        capture_wav_header(header, 0);
        tool_output_write(&wav, header, sizeof(header));
    }

    static xmemarena platform_arena;
    xmemarena_init(&platform_arena, "platform_arena", CAPTURE_PLATFORM_ARENA_SIZE, malloc(CAPTURE_PLATFORM_ARENA_SIZE));
    static display_device display;
    display_init(&display, &platform_arena);
    auto* composed = (uint32_t*)xmemarena_push_align(&platform_arena, DISPLAY_OUTPUT_WIDTH * DISPLAY_OUTPUT_HEIGHT * 4, 64);
    xmemarena* png_tmp = xmemarena_push_arena(&platform_arena, "capture_png_arena", 4u << 20);
    // what only the capture keeps, beside the platform arena so that its use stays the program's;
    // the pages of the frame-cost table that a short show never touches are never mapped
    const uint64_t capture_size = CAPTURE_MAX_COST_FRAMES * 16 + (64u << 10) +
                                  (opt.sheet_path ? (uint64_t)CAPTURE_SHEET_MAX_PICTURES * CONTACT_SHEET_THUMB_BYTES +
                                                        (8u << 20)
                                                  : 0);
    static xmemarena capture_arena;
    xmemarena_init(&capture_arena, "capture_arena", capture_size, malloc(capture_size));
    static capture_stats stats;
    capture_stats_begin(&stats, &capture_arena);
    static capture_sheet sheet;
    if (opt.sheet_path) {
        sheet.every_ms = opt.sheet_every_ms;
        sheet.thumbs = (uint8_t*)xmemarena_push(&capture_arena, (uint64_t)CAPTURE_SHEET_MAX_PICTURES * CONTACT_SHEET_THUMB_BYTES);
        tool_make_parent_dir(opt.sheet_path);
    }
    tool_output hashes, costs;
    if (opt.hashes_path)
        capture_output_open(&hashes, opt.hashes_path);
    if (opt.costs_path)
        capture_output_open(&costs, opt.costs_path);
    prof_init();
    music_reset();
    if (demosys_init(&demosys_global, &display) != 0) {
        printf("failed init demosys\n");
        return 1;
    }

    capture_progress progress = {false, isatty(2) != 0, prof_monotonic_ns(), prof_monotonic_ns()};
    const bool show_progress = opt.video_path || progress.terminal;
    static uint8_t keys[256];  // nobody presses anything
    int16_t samples[CAPTURE_MAX_FRAME_SAMPLES * 2];
    uint64_t wav_bytes = 0;
    uint64_t frame = 0;
    for (;;) {
        if (opt.frames && frame >= opt.frames)
            break;
        // 1/60 s of music: 60 frames are exactly one second of samples
        const uint64_t n = ((frame + 1) * MUSIC_SAMPLE_RATE) / CAPTURE_FRAMES_PER_SECOND -
                           (frame * MUSIC_SAMPLE_RATE) / CAPTURE_FRAMES_PER_SECOND;
        music_mix(samples, (uint32_t)n);
        if (opt.stats) {
            stats.audio_hash = capture_hash(stats.audio_hash, samples, n * 4);
            stats.audio_samples += n;
        }
        if (want_wav) {
            tool_output_write(&wav, samples, n * 4);  // little-endian in memory on every host we build for
            wav_bytes += n * 4;
        }
        // the engine's init steps come on top, as live they are done long before the first
        // frame is due; each step is one pass, so this ends
        while (!demosys_global.engine.init_done)
            demosys_update(&demosys_global, &display, keys, nullptr);
        const uint64_t cpu0 = capture_thread_ns();
        const uint64_t t0 = prof_cycles_now();
        for (uint64_t u = 0; u < opt.updates_per_frame; u++)
            demosys_update(&demosys_global, &display, keys, nullptr);
        const uint64_t t1 = prof_cycles_now();
        demosys_render(&demosys_global, &display, keys, nullptr);
        const uint64_t t2 = prof_cycles_now();
        display_flip(&display);
        display_output_rgba(&display, composed, DISPLAY_OUTPUT_WIDTH * 4);
        const uint64_t frame_cycles = prof_cycles_since(t0);
        const uint64_t frame_cpu_ns = capture_thread_ns() - cpu0;
        if (opt.stats || opt.costs_path)
            capture_stats_frame(&stats, &demosys_global.engine, frame_cycles, frame_cpu_ns, &capture_arena);
        if (opt.costs_path) {
            const uint32_t k = capture_frame_slowest(&stats, &demosys_global.engine);
            const double ms_per_cycle = prof_cycles_to_ms(1000000) / 1000000.0;
            const double parts[4] = {(double)frame_cycles * ms_per_cycle, (double)(t1 - t0) * ms_per_cycle,
                                     (double)(t2 - t1) * ms_per_cycle, (double)(t0 + frame_cycles - t2) * ms_per_cycle};
            char line[CAPTURE_COST_LINE_MAX];
            const size_t len = capture_cost_line(line, frame, parts,
                                                 k < reel_scene_table_count ? reel_scene_table[k].name : "none");
            tool_output_write(&costs, line, len);
        }
        if (opt.stats || opt.hashes_path) {
            const uint64_t h = capture_hash(CAPTURE_HASH_SEED, composed, DISPLAY_OUTPUT_WIDTH * DISPLAY_OUTPUT_HEIGHT * 4);
            stats.frames_hash = capture_hash(stats.frames_hash, &h, sizeof(h));
            if (opt.hashes_path) {
                char line[64];
                const int len = snprintf(line, sizeof(line), "%06llu %016llx\n", (unsigned long long)frame,
                                         (unsigned long long)h);
                tool_output_write(&hashes, line, (size_t)len);
            }
        }
        if (opt.sheet_path)
            capture_sheet_frame(&sheet, frame, composed);
        if (capture_png_due(&opt, frame))
            capture_save_png(composed, frame, opt.out_dir, png_tmp);
        if (opt.video_path)
            capture_video_frame(&video, composed);
        frame++;
        if (show_progress)
            capture_progress_line(&progress, frame, false);
        if (demosys_global.quit)
            break;
        // every frame runs whole frames of sequencer passes (the init steps come before them)
        const char* over = opt.frames ? nullptr : capture_show_over();
        if (over) {
            printf("capture stops: %s\n", over);
            break;
        }
    }
    if (show_progress)
        capture_progress_line(&progress, frame, true);
    if (want_wav) {
        // a pipe or a device cannot seek: its header keeps the sizes 0, as streamed WAV has
        capture_wav_header(header, (uint32_t)wav_bytes);
        if (fseek(wav.file, 0, SEEK_SET) == 0)
            tool_output_write(&wav, header, sizeof(header));
    }
    if (opt.wav_path)
        tool_output_commit(&wav);
    if (opt.hashes_path)
        tool_output_commit(&hashes);
    if (opt.costs_path)
        tool_output_commit(&costs);
    if (opt.sheet_path) {
        const uint64_t mark = xmemarena_get_sp(&capture_arena);
        const bitmap* bm = contact_sheet_compose(&capture_arena, sheet.thumbs, sheet.seconds, sheet.count);
        tool_save_png(bm, opt.sheet_path, &capture_arena);
        xmemarena_set_sp(&capture_arena, mark);
    }
    if (opt.video_path) {
        if (!opt.wav_path && fflush(wav.file) != 0)
            tool_fail("cannot write \"%s\": %s", wav.temp, strerror(errno));
        capture_video_end(&video, opt.wav_path ? wav.path : wav.temp);
        if (!opt.wav_path)
            tool_output_abandon(&wav);
    }
    printf("captured %llu frames (%.2f s of music)%s\n", (unsigned long long)frame, (double)frame / 60.0,
           demosys_global.quit ? ", the show ended" : "");
    if (opt.stats) {
        capture_print_engine(&demosys_global.engine, &capture_arena);
        pass_timer_print("engine pass", REEL_PASS_UPDATE, &demosys_global.engine.total_timer);
        pass_timer_print("engine pass", REEL_PASS_RENDER, &demosys_global.engine.total_timer);
        printf("frames hash: %016llx (%llu frames)\n", (unsigned long long)stats.frames_hash,
               (unsigned long long)stats.frame_count);
        printf("audio hash: %016llx (%llu samples)\n", (unsigned long long)stats.audio_hash,
               (unsigned long long)stats.audio_samples);
        xmemarena_print_high_water(&platform_arena);
        xmemarena_print_high_water(&demosys_global.arena);
        if (demosys_global.engine.arena) {
            xmemarena_print_high_water(demosys_global.engine.arena);
            xmemarena_print_high_water(demosys_global.engine.tmp_arena);
        }
        capture_print_cost(&stats);
    }
    return 0;
}
