/* A statically linked program, which nothing can be preloaded into. */
int main(void) { return 0; }
