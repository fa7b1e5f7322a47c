// Load-time construction order of the library's process-wide objects.
//
// Objects in different translation units would otherwise be built in an
// unspecified order; each one carries its rank with CV_INIT_ORDER, and they
// are destroyed at exit in reverse. Nothing else runs at load.
#ifndef CORVANE_THREAD_INIT_ORDER_H_
#define CORVANE_THREAD_INIT_ORDER_H_

#define CV_INIT_ORDER(rank) __attribute__((init_priority(rank)))

#define CV_INIT_THREAD_ENGINE 1001
#define CV_INIT_BLOCK_POOL_MANAGER 1002
#define CV_INIT_TREE_NODE_STATICS 1003
#define CV_INIT_METHOD_PARAM_STATION 1004
#define CV_INIT_API_TABLE 1005
#define CV_INIT_OPEN_LIST 1006

#endif  // CORVANE_THREAD_INIT_ORDER_H_
