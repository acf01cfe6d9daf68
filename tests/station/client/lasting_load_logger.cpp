// Takes the place of the load logger and runs until it is killed.

#include <unistd.h>

int main() {
    for (;;) {
        pause();
    }
}
