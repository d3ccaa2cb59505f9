/* The simulator's observation functions with C linkage, for programs that
   reach libzel_kestrel_runtime.so only through dlopen/dlsym (zelrun's graph
   dump): plain names and plain types, stable across compilers and standard
   libraries. */
#ifndef ZELSIM_C_CONTROL_H
#define ZELSIM_C_CONTROL_H

#ifdef __cplusplus
extern "C" {
#endif

/* Id of the last graph handed out by init; 0 when none. */
__attribute__((visibility("default"))) int zelsim_last_graph_id(void);

/* Graphviz rendering of `graph_id` (as zelsim::renderDot). Writes at most
   `length` - 1 bytes and a NUL when `length` > 0, and returns the length of
   the whole rendering, so a caller may ask with (id, NULL, 0) first;
   -1 for a graph the simulator does not know. */
__attribute__((visibility("default"))) int zelsim_render_dot(int graph_id, char* buffer, unsigned length);

#ifdef __cplusplus
}
#endif

#endif
