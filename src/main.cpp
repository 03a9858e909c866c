#include "service/tavor.h"

int main() {
    return tavor_run();
}
