// Median cut seeded k-means in linear light; see color_quantize.h for the method.
#include "color_quantize.h"

#include <algorithm>
#include <cstring>

#include "n3d_convert.h"

struct color_quantize_box {
    uint32_t begin, end;  // points[begin..end) after the box's sorts
    double sse;           // weighted squared error about the box's mean
    uint32_t axis;        // the axis of largest variance
};

static double color_quantize_distance(const vec3 a, const vec3 b)
{
    const double d0 = (double)a[0] - b[0], d1 = (double)a[1] - b[1], d2 = (double)a[2] - b[2];
    return d0 * d0 + d1 * d1 + d2 * d2;
}

static uint32_t color_quantize_weight(const color_quantize_point* p) { return p->weight ? p->weight : 1; }

static void color_quantize_box_measure(color_quantize_box* box, const color_quantize_point* points)
{
    double sum[3] = {0, 0, 0}, sum2[3] = {0, 0, 0}, weight = 0;
    for (uint32_t i = box->begin; i < box->end; i++) {
        const double w = color_quantize_weight(&points[i]);
        weight += w;
        for (int c = 0; c < 3; c++) {
            sum[c] += w * points[i].rgb[c];
            sum2[c] += w * points[i].rgb[c] * points[i].rgb[c];
        }
    }
    box->sse = 0;
    box->axis = 0;
    double widest = -1;
    for (uint32_t c = 0; c < 3; c++) {
        const double variance_sum = sum2[c] - sum[c] * sum[c] / weight;  // weight x variance
        box->sse += variance_sum;
        if (variance_sum > widest) {
            widest = variance_sum;
            box->axis = c;
        }
    }
}

static void color_quantize_box_mean(vec3 out, const color_quantize_box* box, const color_quantize_point* points)
{
    double sum[3] = {0, 0, 0}, weight = 0;
    for (uint32_t i = box->begin; i < box->end; i++) {
        const double w = color_quantize_weight(&points[i]);
        weight += w;
        for (int c = 0; c < 3; c++)
            sum[c] += w * points[i].rgb[c];
    }
    for (int c = 0; c < 3; c++)
        out[c] = (float)(sum[c] / weight);
}

// Median cut: returns the number of boxes made, at most max_boxes.
static uint32_t color_quantize_median_cut(color_quantize_box* boxes, uint32_t max_boxes, color_quantize_point* points,
                                          uint32_t count)
{
    boxes[0] = {0, count, 0, 0};
    color_quantize_box_measure(&boxes[0], points);
    uint32_t box_count = 1;
    while (box_count < max_boxes) {
        uint32_t pick = max_boxes;
        for (uint32_t b = 0; b < box_count; b++)
            if (boxes[b].end - boxes[b].begin >= 2 && boxes[b].sse > 0 &&
                (pick == max_boxes || boxes[b].sse > boxes[pick].sse))
                pick = b;
        if (pick == max_boxes)
            break;  // every box holds one colour (or several equal ones)
        color_quantize_box* box = &boxes[pick];
        const uint32_t axis = box->axis;
        std::sort(points + box->begin, points + box->end,
                  [axis](const color_quantize_point& a, const color_quantize_point& b) { return a.rgb[axis] < b.rgb[axis]; });
        // split where the two parts' squared errors along the axis add up to the least
        // (prefix sums of weight, w x and w x^2 over the sorted points)
        double w = 0, wx = 0, wxx = 0, total_w = 0, total_wx = 0, total_wxx = 0;
        for (uint32_t i = box->begin; i < box->end; i++) {
            const double pw = color_quantize_weight(&points[i]), x = points[i].rgb[axis];
            total_w += pw;
            total_wx += pw * x;
            total_wxx += pw * x * x;
        }
        uint32_t split = box->begin + 1;
        double best = -1;
        for (uint32_t i = box->begin; i + 1 < box->end; i++) {
            const double pw = color_quantize_weight(&points[i]), x = points[i].rgb[axis];
            w += pw;
            wx += pw * x;
            wxx += pw * x * x;
            if (points[i + 1].rgb[axis] == points[i].rgb[axis])
                continue;  // equal values stay together
            const double rw = total_w - w, rx = total_wx - wx, rxx = total_wxx - wxx;
            const double cost = (wxx - wx * wx / w) + (rxx - rx * rx / rw);
            if (best < 0 || cost < best) {
                best = cost;
                split = i + 1;
            }
        }
        boxes[box_count] = {split, box->end, 0, 0};
        box->end = split;
        color_quantize_box_measure(box, points);
        color_quantize_box_measure(&boxes[box_count], points);
        box_count++;
    }
    return box_count;
}

static uint32_t color_quantize_nearest(const vec3* centres, uint32_t count, const vec3 rgb)
{
    uint32_t best = 0;
    double best_d = color_quantize_distance(centres[0], rgb);
    for (uint32_t k = 1; k < count; k++) {
        const double d = color_quantize_distance(centres[k], rgb);
        if (d < best_d) {
            best_d = d;
            best = k;
        }
    }
    return best;
}

uint32_t color_quantize_points(vec3* centres, uint32_t max_colors, const color_quantize_point* points, uint32_t count,
                               xmemarena* tmp)
{
    if (count == 0 || max_colors == 0)
        return 0;
    const uint64_t mark = xmemarena_get_sp(tmp);
    auto* work = (color_quantize_point*)xmemarena_push_align(tmp, sizeof(color_quantize_point) * count, 16);
    memcpy(work, points, sizeof(color_quantize_point) * count);
    auto* boxes = (color_quantize_box*)xmemarena_push_align(tmp, sizeof(color_quantize_box) * max_colors, 16);
    const uint32_t k = color_quantize_median_cut(boxes, max_colors, work, count);
    for (uint32_t b = 0; b < k; b++)
        color_quantize_box_mean(centres[b], &boxes[b], work);

    auto* owner = (uint32_t*)xmemarena_push_align(tmp, sizeof(uint32_t) * count, 16);
    auto* sums = (double*)xmemarena_push_align(tmp, sizeof(double) * 4 * k, 16);
    for (uint32_t i = 0; i < count; i++)
        owner[i] = 0xFFFFFFFF;
    for (uint32_t iteration = 0; iteration < COLOR_QUANTIZE_KMEANS_ITERATIONS; iteration++) {
        uint32_t moved = 0;
        memset(sums, 0, sizeof(double) * 4 * k);
        for (uint32_t i = 0; i < count; i++) {
            const uint32_t c = color_quantize_nearest(centres, k, work[i].rgb);
            moved += c != owner[i];
            owner[i] = c;
            const double w = color_quantize_weight(&work[i]);
            for (int j = 0; j < 3; j++)
                sums[c * 4 + j] += w * work[i].rgb[j];
            sums[c * 4 + 3] += w;
        }
        if (moved == 0)
            break;  // the centres below would come out as they are
        for (uint32_t c = 0; c < k; c++)
            if (sums[c * 4 + 3] > 0)  // a centre that lost all its colours stays where it was
                for (int j = 0; j < 3; j++)
                    centres[c][j] = (float)(sums[c * 4 + j] / sums[c * 4 + 3]);
    }
    xmemarena_set_sp(tmp, mark);
    return k;
}

uint32_t color_quantize_collect(color_quantize_point** points, const bitmap* bm, xmemarena* tmp)
{
    const uint64_t pixels = (uint64_t)bm->width * bm->height;
    auto* all = (color_quantize_point*)xmemarena_push_align(tmp, sizeof(color_quantize_point) * (pixels ? pixels : 1), 16);
    const uint32_t channels = bitmap_channels(bm->flags, "color_quantize_collect");
    for (uint32_t y = 0; y < bm->height; y++) {
        const uint8_t* p = bm->pixels + (uint64_t)y * bm->row_bytes;
        for (uint32_t x = 0; x < bm->width; x++, p += channels) {
            vec4 c;
            bitmap_decode_pixel(c, p, bm->flags);
            color_quantize_point* q = &all[(uint64_t)y * bm->width + x];
            const float inv = c[3] > 0 ? 1.0f / c[3] : 0.0f;
            for (int j = 0; j < 3; j++)
                q->rgb[j] = c[j] * inv;
            q->weight = 1;
        }
    }
    std::sort(all, all + pixels, [](const color_quantize_point& a, const color_quantize_point& b) {
        return memcmp(a.rgb, b.rgb, sizeof(vec3)) < 0;
    });
    uint32_t distinct = 0;
    for (uint64_t i = 0; i < pixels; i++) {
        if (distinct && memcmp(all[distinct - 1].rgb, all[i].rgb, sizeof(vec3)) == 0)
            all[distinct - 1].weight++;
        else
            all[distinct++] = all[i];
    }
    *points = all;
    return distinct;
}

uint32_t color_quantize_palette_argb1555(uint16_t* palette, const bitmap* bm, xmemarena* tmp)
{
    const uint64_t mark = xmemarena_get_sp(tmp);
    color_quantize_point* points = nullptr;
    const uint32_t count = color_quantize_collect(&points, bm, tmp);
    vec3 centres[COLOR_QUANTIZE_MAX_COLORS];
    const uint32_t k = color_quantize_points(centres, COLOR_QUANTIZE_MAX_COLORS, points, count, tmp);
    uint32_t used = 0;
    for (uint32_t c = 0; c < k; c++) {
        const vec4 rgba = {centres[c][0], centres[c][1], centres[c][2], 1.0f};
        const uint16_t v = n3d_linear_to_argb1555(rgba);
        bool seen = false;
        for (uint32_t j = 0; j < used && !seen; j++)
            seen = palette[j] == v;
        if (!seen)
            palette[used++] = v;
    }
    xmemarena_set_sp(tmp, mark);
    return used;
}
