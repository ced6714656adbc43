/* A program that does what it is told, a line at a time on its standard input, and answers each with a
 * line. It allocates nothing else.
 *
 *   a N     allocates N bytes          f       releases the latest block
 *   r N     resizes the latest block
 *   F       forks; the child goes on, the parent waits for its end
 *   v N     N children of vfork run the program "true"
 *   C       closes all descriptors above 2 and opens files of its own on 3 to 40
 *   H N     N times puts its own files on 3 to 40, whatever is there, and writes a byte to each
 *   n       moves to a user namespace of its own; the answer is the error, 0 if there was none
 *   U       tries to become a program that is not there
 *   E, S P  becomes this program anew, or the program P without any environment
 *   Q X N   ends by exit, _exit, quick_exit: status 6
 *   P       the main thread ends, and a tenth of a second later the only other one
 *   D       becomes a daemon; the former process ends */
#define _GNU_SOURCE
#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <sched.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

static void* g_blocks[10000];
static int g_count;

static void Answer(const char* text, long number) {
  char line[64];
  const int length = snprintf(line, sizeof line, "%s %ld\n", text, number);
  if (write(1, line, (size_t)length) != length) _exit(98);
}

static int ReadLine(char* line, size_t room) {
  size_t length = 0;
  while (length + 1 < room && read(0, line + length, 1) == 1) {
    if (line[length++] != '\n') continue;
    line[length - 1] = 0;
    return 1;
  }
  return 0;
}

static void Fork(void) {
  int status = 0;
  const pid_t child = fork();
  if (child == 0) {
    Answer("child", getpid());
    return;
  }
  waitpid(child, &status, 0);
  Answer("parent", WEXITSTATUS(status));
}

static __attribute__((noinline)) pid_t Spawn(void) {
  const pid_t child = vfork();
  if (child != 0) return child;
  execl("/no/such/program", "true", (char*)NULL);
  execl("/bin/true", "true", (char*)NULL);
  _exit(97);
}

static void SpawnMany(long count) {
  for (long i = 0; i < count; i++) {
    int status = 0;
    waitpid(Spawn(), &status, 0);
    if (status != 0) Answer("a child failed", status);
  }
  Answer("spawned", count);
}

static void TakeDescriptors(void) {
  int wrong = 0;
  for (int i = 3; i < 1024; i++) close(i);
  for (int i = 3; i <= 40; i++) {
    char name[32];
    snprintf(name, sizeof name, "own.%d", i);
    wrong += open(name, O_CREAT | O_TRUNC | O_RDWR, 0666) != i;
  }
  Answer("wrong", wrong);
}

static void HammerDescriptors(long rounds) {
  int files[38];
  for (int i = 0; i < 38; i++) {
    char name[32];
    snprintf(name, sizeof name, "own.%d", i + 3);
    files[i] = fcntl(open(name, O_CREAT | O_TRUNC | O_RDWR | O_APPEND, 0666), F_DUPFD, 100);
  }
  for (long round = 0; round < rounds; round++) {
    for (int i = 0; i < 38; i++) {
      close(i + 3);
      if (dup2(files[i], i + 3) != i + 3 || write(i + 3, "x", 1) != 1) Answer("failed", i);
    }
  }
  Answer("hammered", rounds);
}

static void* EndLater(void* argument) {
  usleep(100000);
  return argument;
}

static void LeaveThreadBehind(void) {
  pthread_t thread;
  pthread_create(&thread, NULL, EndLater, NULL);
  Answer("leaving", 0);
  pthread_exit(NULL);
}

static void Become(char* program) {
  char* const arguments[] = {program, NULL};
  char* const variables[] = {NULL};
  execve(program, arguments, variables);
}

int main(void) {
  char line[4200];
  Answer("ready", getpid());
  while (ReadLine(line, sizeof line)) {
    const long number = atol(line + 1);
    switch (line[0]) {
      case 'a': g_blocks[g_count++] = malloc((size_t)number); break;
      case 'f': free(g_blocks[--g_count]); break;
      case 'r': g_blocks[g_count - 1] = realloc(g_blocks[g_count - 1], (size_t)number); break;
      case 'F': Fork(); continue;
      case 'v': SpawnMany(number); continue;
      case 'C': TakeDescriptors(); continue;
      case 'H': HammerDescriptors(number); continue;
      case 'n': Answer("moved", unshare(CLONE_NEWUSER) == 0 ? 0 : errno); continue;
      case 'U': execlp("no-such-program", "it", "with", "arguments", (char*)NULL); break;
      case 'E': execl("/proc/self/exe", "steered", (char*)NULL); break;
      case 'S': Become(line + 2); break;
      case 'Q': exit(6);
      case 'X': _exit(6);
      case 'N': quick_exit(6);
      case 'P': LeaveThreadBehind(); continue;
      case 'D':
        if (daemon(1, 1) != 0) return 96;
        Answer("daemon", getpid());
        continue;
      default: return 95;
    }
    Answer("done", errno == ENOENT);
    errno = 0;
  }
  return 0;
}
