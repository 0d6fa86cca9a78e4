// The rasterizer benchmark's workload drawn by the project's variants and, beside them in the
// same run, by the software GL rasterizer behind the OSMesa library (Debian's
// libosmesa6-dev), so that the ratio is measured on the same machine in the same minute.
//
// The peer draws the same random triangle sequence (320 x 200 area, w between 1 and 2), with
// perspective-correct texturing from the same 256 x 256 flare (nearest texel, wrapping, a
// 16-bit internal format), the same per-pixel lighting term p0^2 + p1^2 looked up in the same
// phong table and applied to the texel, a 16-bit depth buffer tested and written, into a
// 16-bit (RGB 565) colour buffer, and the depth buffer cleared every 100 triangles. It gets
// the triangles 100 to a draw call (between two depth clears), as a GL program would; the
// generation of the triangles is inside the time for both, and the peer's time ends after
// glFinish. Pixels are counted as the project's benchmark counts them: half the sum of
// twice the signed areas.
//
// The driver reads LP_NUM_THREADS once per process, when its first context is made, so each
// peer trial runs in a child process of its own: one with LP_NUM_THREADS=0 (it rasterizes in
// the calling thread) and one with the driver's default. The threads the child really has
// after drawing are counted in /proc/self/task and printed. A third trial draws in one thread
// without the depth test, as the variants without depth do: the depth test spares the peer the
// texel and lighting of every pixel it hides, which those variants never skip, so their "x like"
// column compares them with this trial (and the depth variants with the first).
//
// Rounds alternate the project's variants (each with every kernel set the processor has) and
// the two peer settings; each figure printed is the best round (on a shared machine the least
// disturbed one).
//
//   bench_peer_gl [SECONDS per trial, default 0.5] [ROUNDS, default 3] [FILTER] [CLOCK]
// CLOCK cpu (the default) times each trial by its process's processor time, which on a busy
// machine leaves out the time other processes had the cores; with the driver's default
// threads it is the sum over its threads, so that figure is work per processor-second, and
// only "wall" shows what the threads gain in elapsed time (on an otherwise idle machine).
#define GL_GLEXT_PROTOTYPES 1
#include <GL/osmesa.h>
#include <GL/gl.h>
#include <GL/glext.h>
#include <dirent.h>
#include <sys/wait.h>
#include <unistd.h>

#include "bench_workload.h"
#include "tool.h"

namespace {

constexpr int32_t PEER_W = 320;
constexpr int32_t PEER_H = 200;
constexpr uint32_t PEER_PHONG_ATTRIBUTES = 4;

// What a trial reports: drawn triangles, pixels (half the summed signed areas) and cycles.
struct peer_trial {
    double triangles, pixels, cycles;
    int32_t threads;  // peer: threads of the process after drawing
    double written;   // peer: fraction of the area's colour pixels that are not black
};

const char* const PEER_VERTEX_SHADER =
    "#version 120\n"
    "void main() { gl_Position = gl_Vertex; gl_TexCoord[0] = gl_MultiTexCoord0; }\n";
// the texel scaled by the phong table's shade (0 to 31) over 32, as the 16-bit phong variants do
const char* const PEER_FRAGMENT_SHADER =
    "#version 120\n"
    "uniform sampler2D texture0;\n"
    "uniform sampler1D phong;\n"
    "void main() {\n"
    "    vec4 t = texture2D(texture0, gl_TexCoord[0].xy);\n"
    "    float q = dot(gl_TexCoord[0].zw, gl_TexCoord[0].zw);\n"
    "    gl_FragColor = t * texture1D(phong, q * 2.0).r;\n"
    "}\n";

int32_t peer_count_threads()
{
    int32_t n = 0;
    if (DIR* d = opendir("/proc/self/task")) {
        while (const dirent* e = readdir(d))
            n += e->d_name[0] != '.';
        closedir(d);
    }
    return n;
}

GLuint peer_shader(GLenum kind, const char* text)
{
    const GLuint s = glCreateShader(kind);
    glShaderSource(s, 1, &text, nullptr);
    glCompileShader(s);
    GLint ok = 0;
    glGetShaderiv(s, GL_COMPILE_STATUS, &ok);
    if (!ok) {
        char log[1024] = "";
        glGetShaderInfoLog(s, sizeof(log), nullptr, log);
        fprintf(stderr, "bench_peer_gl: shader: %s\n", log);
        exit(1);
    }
    return s;
}

// The peer's drawing state: the context, its buffers, the program and the textures.
struct peer_gl {
    OSMesaContext ctx;
    uint16_t colour[PEER_W * PEER_H];
};

void peer_setup(peer_gl* p, const bitmap* flare, const uint8_t* phong_table)
{
    p->ctx = OSMesaCreateContextExt(OSMESA_RGB_565, 16, 0, 0, nullptr);
    if (!p->ctx || !OSMesaMakeCurrent(p->ctx, p->colour, GL_UNSIGNED_SHORT_5_6_5, PEER_W, PEER_H)) {
        fprintf(stderr, "bench_peer_gl: no OSMesa context with RGB 565 colour and 16-bit depth\n");
        exit(1);
    }
    GLint depth_bits = 0;
    glGetIntegerv(GL_DEPTH_BITS, &depth_bits);
    if (depth_bits != 16) {
        fprintf(stderr, "bench_peer_gl: the depth buffer has %d bits, not 16\n", depth_bits);
        exit(1);
    }
    glViewport(0, 0, PEER_W, PEER_H);
    glEnable(GL_DEPTH_TEST);
    glDepthFunc(GL_LESS);
    glDisable(GL_CULL_FACE);
    glClearColor(0, 0, 0, 1);
    glClear(GL_COLOR_BUFFER_BIT | GL_DEPTH_BUFFER_BIT);

    GLuint tex[2];
    glGenTextures(2, tex);
    glActiveTexture(GL_TEXTURE0);
    glBindTexture(GL_TEXTURE_2D, tex[0]);
    glPixelStorei(GL_UNPACK_ALIGNMENT, 1);
    glPixelStorei(GL_UNPACK_ROW_LENGTH, (GLint)(flare->row_bytes / 4));
    glTexImage2D(GL_TEXTURE_2D, 0, GL_RGB5, (GLsizei)flare->width, (GLsizei)flare->height, 0, GL_RGBA,
                 GL_UNSIGNED_BYTE, flare->pixels);
    glPixelStorei(GL_UNPACK_ROW_LENGTH, 0);
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MIN_FILTER, GL_NEAREST);
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MAG_FILTER, GL_NEAREST);
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_WRAP_S, GL_REPEAT);
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_WRAP_T, GL_REPEAT);

    uint8_t shades[256];
    for (int i = 0; i < 256; i++)
        shades[i] = (uint8_t)((phong_table[i] & 31) * 8);
    glActiveTexture(GL_TEXTURE1);
    glBindTexture(GL_TEXTURE_1D, tex[1]);
    glTexImage1D(GL_TEXTURE_1D, 0, GL_LUMINANCE8, 256, 0, GL_LUMINANCE, GL_UNSIGNED_BYTE, shades);
    glTexParameteri(GL_TEXTURE_1D, GL_TEXTURE_MIN_FILTER, GL_NEAREST);
    glTexParameteri(GL_TEXTURE_1D, GL_TEXTURE_MAG_FILTER, GL_NEAREST);
    glTexParameteri(GL_TEXTURE_1D, GL_TEXTURE_WRAP_S, GL_CLAMP_TO_EDGE);

    const GLuint program = glCreateProgram();
    glAttachShader(program, peer_shader(GL_VERTEX_SHADER, PEER_VERTEX_SHADER));
    glAttachShader(program, peer_shader(GL_FRAGMENT_SHADER, PEER_FRAGMENT_SHADER));
    glLinkProgram(program);
    glUseProgram(program);
    glUniform1i(glGetUniformLocation(program, "texture0"), 0);
    glUniform1i(glGetUniformLocation(program, "phong"), 1);
}

// One batch of the sequence: the triangles drawn between two depth clears, as clip-space
// positions (x and y over the 320 x 200 area, w = 1/iw, depth 1 - iw so that nearer is less)
// and texture coordinates (u, v, p0, p1), each multiplied through by w as the hardware divides.
struct peer_batch {
    float position[BENCH_CLEAR_EVERY * 3][4];
    float coords[BENCH_CLEAR_EVERY * 3][4];
    double pixels;
};

void peer_fill_batch(pcg32* rng, peer_batch* b)
{
    b->pixels = 0;
    for (uint32_t n = 0; n < BENCH_CLEAR_EVERY;) {
        bench_triangle t;
        if (!bench_next_triangle_raw(rng, PEER_PHONG_ATTRIBUTES, &t))
            continue;
        for (int i = 0; i < 3; i++) {
            const float w = 1.0f / t.iws[i];
            float* pos = b->position[n * 3 + i];
            pos[0] = (t.xs[i] / (0.5f * BENCH_AREA_W) - 1.0f) * w;
            pos[1] = (t.ys[i] / (0.5f * BENCH_AREA_H) - 1.0f) * w;
            pos[2] = (1.0f - t.iws[i]) * w;
            pos[3] = w;
            memcpy(b->coords[n * 3 + i], t.attr[i], sizeof(t.attr[i]));
        }
        b->pixels += 0.5 * t.area;
        n++;
    }
}

// The peer's trial, in this (child) process: set up, one batch to warm up (shader
// compilation, thread start), then batches until the time is up.
peer_trial peer_run(const bitmap* flare, const uint8_t* phong_table, double seconds, bool cpu_time, bool depth)
{
    static peer_gl p;
    peer_setup(&p, flare, phong_table);
    if (!depth)
        glDisable(GL_DEPTH_TEST);
    static peer_batch batch;
    glEnableClientState(GL_VERTEX_ARRAY);
    glEnableClientState(GL_TEXTURE_COORD_ARRAY);
    glVertexPointer(4, GL_FLOAT, 0, batch.position);
    glClientActiveTexture(GL_TEXTURE0);
    glTexCoordPointer(4, GL_FLOAT, 0, batch.coords);

    pcg32 rng = {BENCH_SEED_STATE, BENCH_SEED_INCREMENT};
    peer_fill_batch(&rng, &batch);
    glDrawArrays(GL_TRIANGLES, 0, BENCH_CLEAR_EVERY * 3);
    glFinish();
    peer_trial r = {};
    r.threads = peer_count_threads();

    rng = {BENCH_SEED_STATE, BENCH_SEED_INCREMENT};
    const uint64_t start = bench_now(cpu_time);
    const uint64_t limit = (uint64_t)(seconds * prof_global.cycles_per_second);
    while (bench_now(cpu_time) - start <= limit) {
        peer_fill_batch(&rng, &batch);
        glClear(GL_DEPTH_BUFFER_BIT);
        glDrawArrays(GL_TRIANGLES, 0, BENCH_CLEAR_EVERY * 3);
        r.triangles += BENCH_CLEAR_EVERY;
        r.pixels += batch.pixels;
    }
    glFinish();
    r.cycles = (double)(bench_now(cpu_time) - start);
    uint32_t lit = 0;
    for (uint16_t px : p.colour)
        lit += px != 0;
    r.written = (double)lit / (PEER_W * PEER_H);
    OSMesaDestroyContext(p.ctx);
    return r;
}

// A peer trial in a child process with LP_NUM_THREADS set to `threads` (null: not set).
peer_trial peer_trial_in_child(const bitmap* flare, const uint8_t* phong_table, double seconds, const char* threads,
                                bool cpu_time, bool depth)
{
    int fds[2];
    if (pipe(fds) != 0) {
        perror("bench_peer_gl: pipe");
        exit(1);
    }
    fflush(stdout);
    const pid_t pid = fork();
    if (pid < 0) {
        perror("bench_peer_gl: fork");
        exit(1);
    }
    if (pid == 0) {
        close(fds[0]);
        if (threads)
            setenv("LP_NUM_THREADS", threads, 1);
        else
            unsetenv("LP_NUM_THREADS");
        const peer_trial r = peer_run(flare, phong_table, seconds, cpu_time, depth);
        const ssize_t put = write(fds[1], &r, sizeof(r));
        _exit(put == (ssize_t)sizeof(r) ? 0 : 1);
    }
    close(fds[1]);
    peer_trial r = {};
    const ssize_t got = read(fds[0], &r, sizeof(r));
    close(fds[0]);
    int status = 0;
    waitpid(pid, &status, 0);
    if (got != (ssize_t)sizeof(r) || !WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        fprintf(stderr, "bench_peer_gl: the peer's trial failed\n");
        exit(1);
    }
    return r;
}

double peer_rate(const peer_trial& t) { return t.cycles > 0 ? t.pixels / (t.cycles / prof_global.cycles_per_second) : 0; }

// Keeps the better of two trials (more pixels per second).
void peer_keep_best(peer_trial* best, const peer_trial& t)
{
    if (peer_rate(t) > peer_rate(*best))
        *best = t;
}

}  // namespace

int main(int argc, char** argv)
{
    static const tool_info peer_tool = {
        "bench_peer_gl",
        "usage: bench_peer_gl [SECONDS] [ROUNDS] [FILTER] [CLOCK]\n"
        "Times the rasterizer variants whose name contains FILTER and the OSMesa software rasterizer\n"
        "(one thread and its default threads) on the same random-triangle workload, in rounds.\n"
        "  SECONDS  per variant and round, more than 0 and at most 60 (default 0.5)\n"
        "  ROUNDS   1 to 100 (default 3); the best round of each is printed\n"
        "  FILTER   part of a variant's name (default: every variant; \"-\" for none)\n"
        "  CLOCK    cpu: the process's processor time (default), wall: the time-stamp counter\n"};
    tool_begin(&peer_tool, argc, argv);
    if (argc > 5)
        tool_usage_error("at most four arguments");
    const double seconds = argc > 1 ? tool_parse_double("SECONDS", argv[1], 1e-3, 60.0) : 0.5;
    const uint32_t rounds = argc > 2 ? (uint32_t)tool_parse_u64("ROUNDS", argv[2], 1, 100) : 3;
    const char* filter = argc > 3 ? argv[3] : nullptr;
    if (argc > 4 && strcmp(argv[4], "cpu") != 0 && strcmp(argv[4], "wall") != 0)
        tool_usage_error("CLOCK is cpu or wall, not \"%s\"", argv[4]);
    const bool cpu_time = argc <= 4 || strcmp(argv[4], "cpu") == 0;

    prof_init();
    static uint8_t block[24u << 20];
    xmemarena arena;
    xmemarena_init(&arena, "bench_peer_gl", sizeof(block), block);
    n3d_init(&arena);
    const n3d_raster_kernels best = n3d_raster_use_kernels(N3D_RASTER_KERNELS_BEST);
    n3d_framecontext fc;
    n3d_framecontext_init(&fc, &arena, PEER_W, PEER_H, N3D_TEXEL_FORMAT_ARGB1555_DISPLAY_ARGB1555,
                          N3D_FRAMECONTEXT_COVERAGE | N3D_FRAMECONTEXT_ZBUFFER);
    bench_textures textures;
    bench_make_textures(&textures, &arena);
    const uint8_t* phong_table = n3d_phong_lut_alloc(&arena, 0.5f, 1);
    bitmap* flare = bitmap_create_flare(&arena);
    n3d_texture* t8[1] = {&textures.t8};
    n3d_texture* t16[1] = {&textures.t16};

    // every variant with every kernel set the processor has
    static peer_trial ours[N3D_RASTER_KERNELS_BEST + 1][N3D_RASTERIZER_TABLE_CAPACITY];
    peer_trial peer_one = {};
    peer_trial peer_default = {};
    peer_trial peer_flat = {};  // one thread, no depth test
    for (uint32_t round = 0; round < rounds; round++) {
        for (uint32_t k = 0; k <= best; k++) {
            n3d_raster_use_kernels((n3d_raster_kernels)k);
            for (uint32_t i = 0; i < n3d_rasterizer_table_count; i++) {
                n3d_rasterizer_entry* e = &n3d_rasterizer_table[i];
                if (filter && !strstr(e->name, filter))
                    continue;
                n3d_texture* const* tex = (e->flags & N3D_RASTERIZER_T0_I8ARGB1555) ? t8 : t16;
                const bench_result r = bench_random(e, &fc, tex, &phong_table, seconds, 0, cpu_time);
                peer_keep_best(&ours[k][i], {r.triangles, r.pixels, r.cycles, 1, 0});
            }
        }
        peer_keep_best(&peer_one, peer_trial_in_child(flare, phong_table, seconds, "0", cpu_time, true));
        peer_keep_best(&peer_default, peer_trial_in_child(flare, phong_table, seconds, nullptr, cpu_time, true));
        peer_keep_best(&peer_flat, peer_trial_in_child(flare, phong_table, seconds, "0", cpu_time, false));
    }

    printf("time-stamp counter: %.0f cycles/s; best of %u rounds of %.2f s of %s\n", prof_global.cycles_per_second,
           rounds, seconds, cpu_time ? "processor time (all threads)" : "wall time");
    printf("%-88s %-9s %11s %7s %8s %8s %8s\n", "drawn by (random triangles in 320x200)", "kernels", "pixels/s",
           "cyc/px", "x peer1", "x peerN", "x like1");
    const double one = peer_rate(peer_one);
    const double all = peer_rate(peer_default);
    const double flat = peer_rate(peer_flat);
    for (uint32_t i = 0; i < n3d_rasterizer_table_count; i++)
        for (uint32_t k = 0; k <= best; k++) {
            const peer_trial& t = ours[k][i];
            if (t.cycles == 0)
                continue;
            const bool depth = n3d_rasterizer_table[i].flags & N3D_RASTERIZER_ZBUFFER_READ;
            printf("%-88s %-9s %11.0f %7.2f %8.2f %8.2f %8.2f\n", n3d_rasterizer_table[i].name,
                   n3d_raster_kernels_name((n3d_raster_kernels)k), peer_rate(t), t.cycles / t.pixels, peer_rate(t) / one,
                   peer_rate(t) / all, peer_rate(t) / (depth ? one : flat));
        }
    const peer_trial* peers[3] = {&peer_one, &peer_default, &peer_flat};
    const char* names[3] = {"OSMesa, LP_NUM_THREADS=0", "OSMesa, default threads",
                            "OSMesa, LP_NUM_THREADS=0, no depth test"};
    for (int k = 0; k < 3; k++) {
        const peer_trial& t = *peers[k];
        char label[128];
        snprintf(label, sizeof(label), "%s (%d threads, %.0f%% of the area lit)", names[k], t.threads,
                 100.0 * t.written);
        printf("%-88s %-9s %11.0f %7.2f %8.2f %8.2f %8.2f\n", label, "", peer_rate(t), t.cycles / t.pixels,
               peer_rate(t) / one, peer_rate(t) / all, k == 2 ? 1.0 : peer_rate(t) / one);
    }
    return 0;
}
