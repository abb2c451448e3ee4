/* JSON document model: being built. */
#ifndef CHMGR_JSON_H
#define CHMGR_JSON_H
#endif
