/* A library that a host must refuse, or must use without streaming; the flaw is chosen by a macro.
 */
#include "orb_plugin.h"

#ifdef NO_FUNCTIONS
int orb_unrelated(void) { return 0; }
#else

#ifdef OLD_DESCRIPTOR
#define DESCRIPTOR_VERSION 7
#else
#define DESCRIPTOR_VERSION 1
#endif

#ifdef OLD_TABLE
#define TABLE_VERSION 2
#else
#define TABLE_VERSION 3
#endif

static void destroy(ORBRuntimeHandle* handle) { (void)handle; }

static int create(const char* path, const char* config, ORBRuntimeHandle** out, char* err,
                  size_t errLen) {
  static int model;
  (void)path, (void)config, (void)err, (void)errLen;
  *out = (ORBRuntimeHandle*)&model;
  return ORB_OK;
}

static const ORBPluginDescriptor descriptor = {DESCRIPTOR_VERSION, 1, "flawed", "flawed", 0, 0};
static const ORBRuntimeV2 table = {.version = TABLE_VERSION,
                                   .size = sizeof table,
                                   .id = "flawed",
                                   .description = "flawed",
                                   .create = create,
                                   .destroy = destroy};
/* Belongs to another runtime. */
static const ORBRuntimeV2S streaming = {1, sizeof streaming, "other", 0};

const ORBPluginDescriptor* orb_plugin_init(void) { return &descriptor; }

const ORBRuntimeV2* orb_plugin_runtimes_v2(uint32_t* count) {
  *count = 1;
  return &table;
}

const ORBRuntimeV2S* orb_plugin_runtimes_v2s(uint32_t* count) {
  *count = 1;
  return &streaming;
}
#endif
