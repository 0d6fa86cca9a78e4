// reel_gltf: imports a glTF 2.0 model (.gltf or .glb) for the animated 3D scene: writes the
// datapack, one palette texture per base-colour image and the reel_pack manifest lines for
// them into OUTDIR, and prints what it imported and every conversion it made.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "gltf_import.h"
#include "memarena.h"

// Taken once; untouched pages cost nothing. The temporary arena holds a source picture of the
// largest allowed size as floats while it is scaled.
constexpr uint32_t REEL_GLTF_MAX_IMAGE_SIDE = 4096;
constexpr uint64_t REEL_GLTF_ARENA_BYTES = 2ull << 30;
constexpr uint64_t REEL_GLTF_TMP_BYTES = 1ull << 30;

static const char* const REEL_GLTF_USAGE =
    "usage: reel_gltf [--name NAME] [--direct NODE] MODEL.gltf|MODEL.glb OUTDIR\n"
    "Imports a glTF 2.0 model for the animated 3D scene. Writes into OUTDIR (created when missing):\n"
    "  NAME.mad         the datapack: nodes, meshes, skins, cameras, materials, animations\n"
    "  NAME_<image>.tmap one 8-bit palette texture per base-colour image (and per untextured material)\n"
    "  NAME.manifest    the reel_pack lines for these files\n"
    "NAME defaults to the model's file name without its extension. --direct names the node the scene\n"
    "draws unlit in its second pass (its special node): its images are written as ARGB1555 copies\n"
    "NAME_<image>_direct.tmap (and NAME_colors_direct.tmap). Conversions the datapack needs\n"
    "(strips and fans to lists, morph targets baked in, splines resampled, ...) are printed as notes;\n"
    "what cannot be converted is refused with a message naming the glTF element, and exit status 1.\n"
    "A model without a perspective camera gets a node reel_camera framing it, one without animations a\n"
    "still reel_still, and without --direct an empty special node reel_special; the last line printed\n"
    "is the script row that plays the import in the animated 3D scene.\n";

static void reel_gltf_print(const char* path, const gltf_import_result* r)
{
    const mad_datapack* d = &r->datapack;
    printf("imported \"%s\": %u nodes, %u triangles, %u animations, %u cameras, %zu textures\n", path, d->node_count,
           r->triangle_count, d->animation_count, d->camera_count, r->textures.size());
    for (uint32_t i = 0; i < d->node_count; i++) {
        const mad_node* n = &d->nodes[i];
        printf("node[%u] \"%s\"", i, n->name);
        if (n->parent)
            printf(" child of node[%u]", (uint32_t)(n->parent - d->nodes));
        if (n->mesh) {
            uint32_t triangles = 0;
            for (uint32_t j = 0; j < n->mesh->primitive_count; j++)
                triangles += n->mesh->primitives[j].vertices.count / 3;
            printf(", mesh[%u] of %u primitives and %u triangles", (uint32_t)(n->mesh - d->meshes),
                   n->mesh->primitive_count, triangles);
        }
        if (n->skin)
            printf(", skin[%u] of %u joints", (uint32_t)(n->skin - d->skins), n->skin->joint_count);
        if (n->camera)
            printf(", camera[%u]: %s, yfov %g, znear %g", (uint32_t)(n->camera - d->cameras),
                   n->camera->type == 0 ? "perspective" : "orthographic", (double)n->camera->yfov,
                   (double)n->camera->znear);
        printf("\n");
    }
    for (uint32_t i = 0; i < d->animation_count; i++) {
        const mad_animation* a = &d->animations[i];
        float first = 0, last = 0;
        for (uint32_t j = 0; j < a->sampler_count; j++) {
            const mad_sampler* s = &a->samplers[j];
            first = j == 0 || s->input[0] < first ? s->input[0] : first;
            last = j == 0 || s->input[s->input_count - 1] > last ? s->input[s->input_count - 1] : last;
        }
        printf("animation[%u] \"%s\": %u channels, %u samplers, keys from %g s to %g s\n", i, a->name,
               a->channel_count, a->sampler_count, (double)first, (double)last);
    }
    for (const gltf_import_texture& t : r->textures)
        printf("texture \"%s\": from %s, %u x %u to %u x %u, %s\n", t.resource.c_str(), t.source.c_str(),
               t.source_width, t.source_height, 1u << t.texture.log2_w, 1u << t.texture.log2_h,
               t.texture.format == N3D_TEXEL_FORMAT_ARGB1555_DISPLAY_ARGB1555
                   ? "ARGB1555"
                   : (std::to_string(t.colors) + " colours").c_str());
    for (const std::string& note : r->notes)
        printf("note: %s\n", note.c_str());
}

int main(int argc, char** argv)
{
    const char* name = nullptr;
    const char* direct = nullptr;
    const char* paths[2] = {nullptr, nullptr};
    uint32_t path_count = 0;
    for (int i = 1; i < argc; i++) {
        if (strcmp(argv[i], "--help") == 0 || strcmp(argv[i], "-h") == 0) {
            fputs(REEL_GLTF_USAGE, stdout);
            return 0;
        }
        if (strcmp(argv[i], "--name") == 0 && i + 1 < argc && argv[i + 1][0]) {
            name = argv[++i];
        } else if (strcmp(argv[i], "--direct") == 0 && i + 1 < argc) {
            direct = argv[++i];
        } else if (argv[i][0] == '-' || path_count == 2) {
            fputs(REEL_GLTF_USAGE, stderr);
            return 2;
        } else {
            paths[path_count++] = argv[i];
        }
    }
    if (path_count != 2) {
        fputs(REEL_GLTF_USAGE, stderr);
        return 2;
    }
    const std::string base = name ? gltf_import_sanitize(name) : gltf_import_name_from_path(paths[0]);
    if (base.empty()) {
        fprintf(stderr, "reel_gltf: no resource name: give one with --name\n");
        return 2;
    }

    xmemarena arena, tmp;
    void* arena_memory = malloc(REEL_GLTF_ARENA_BYTES);
    void* tmp_memory = malloc(REEL_GLTF_TMP_BYTES);
    if (!arena_memory || !tmp_memory) {
        fprintf(stderr, "reel_gltf: out of memory\n");
        free(arena_memory);
        free(tmp_memory);
        return 1;
    }
    xmemarena_init(&arena, "gltf_arena", REEL_GLTF_ARENA_BYTES, arena_memory);
    xmemarena_init(&tmp, "gltf_tmp_arena", REEL_GLTF_TMP_BYTES, tmp_memory);

    const gltf_import_options options = {base.c_str(), REEL_GLTF_MAX_IMAGE_SIDE, 1, direct};
    gltf_import_result result;
    std::string error;
    int status = 0;
    if (gltf_import_file(&result, &arena, &tmp, paths[0], &options, &error)) {
        for (const std::string& note : result.notes)
            printf("note: %s\n", note.c_str());
        fflush(stdout);
        fprintf(stderr, "reel_gltf: %s: %s\n", paths[0], error.c_str());
        status = 1;
    } else {
        reel_gltf_print(paths[0], &result);
        if (gltf_import_write(&result, paths[1], base.c_str(), &tmp, &error)) {
            fflush(stdout);
            fprintf(stderr, "reel_gltf: %s\n", error.c_str());
            status = 1;
        } else {
            printf("manifest \"%s/%s.manifest\":\n%s", paths[1], base.c_str(), gltf_import_manifest(&result).c_str());
            printf("scene row that plays it:\n%s\n", gltf_import_scene_row(&result).c_str());
        }
    }
    free(tmp_memory);
    free(arena_memory);
    return status;
}
