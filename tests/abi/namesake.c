/* Functions under the names of some that the plug-in exports and calls, as another plug-in built
 * from an older state of the same sources would have them. */
int namesakeCalls = 0;

/* kiv::ORBLoader::close(), qwen35::resetModel(qwen35::Model&) and qwen35::embedRow(qwen35::Model&,
 * unsigned long, float*) */
void _ZN3kiv9ORBLoader5closeEv(void* loader);
void _ZN3kiv9ORBLoader5closeEv(void* loader) {
  (void)loader;
  namesakeCalls += 1;
}

void _ZN6qwen3510resetModelERNS_5ModelE(void* model);
void _ZN6qwen3510resetModelERNS_5ModelE(void* model) {
  (void)model;
  namesakeCalls += 1;
}

void _ZN6qwen358embedRowERNS_5ModelEmPf(void* model, unsigned long token, float* out);
void _ZN6qwen358embedRowERNS_5ModelEmPf(void* model, unsigned long token, float* out) {
  (void)model;
  (void)token;
  (void)out;
  namesakeCalls += 1;
}
