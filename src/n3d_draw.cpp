// The rasterizer registry: the table of variants that n3d_init fills once at start-up.
#include "n3d_draw.h"

#include <cstring>

#include "diag.h"

n3d_rasterizer_entry n3d_rasterizer_table[N3D_RASTERIZER_TABLE_CAPACITY];
uint32_t n3d_rasterizer_table_count;

void n3d_register_rasterizer(const char* name, uint32_t attribute_count, n3d_rasterizer_fn* rasterizer,
                             n3d_rasterizer_names_fn* names, uint32_t flags, const char* file, int line)
{
    for (uint32_t i = 0; i < n3d_rasterizer_table_count; i++)
        if (n3d_rasterizer_table[i].flags == flags)
            crash_in("src/n3d_draw", __LINE__, "n3d_register_rasterizer",
                     "a rasterizer with these flags were already regisered! flags: %d (this one was at: %s:%d)\n",
                     (int)flags, file, line);
    if (n3d_rasterizer_table_count == N3D_RASTERIZER_TABLE_CAPACITY)
        crash_in("src/n3d_draw", __LINE__, "n3d_register_rasterizer", "rasterizer table is full (%u entries)\n",
                 N3D_RASTERIZER_TABLE_CAPACITY);
    n3d_rasterizer_entry* e = &n3d_rasterizer_table[n3d_rasterizer_table_count++];
    memset(e, 0, sizeof(*e));
    e->flags = flags;
    e->name = name;
    e->attribute_count = attribute_count;
    e->rasterizer = rasterizer;
    e->names = names;
    names(e);
}

int32_t n3d_find_rasterizer(uint32_t flags)
{
    for (uint32_t i = 0; i < n3d_rasterizer_table_count; i++)
        if (n3d_rasterizer_table[i].flags == flags)
            return (int32_t)i;
    return -1;
}
