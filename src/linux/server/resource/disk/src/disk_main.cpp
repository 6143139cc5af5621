#include "disk.h"

int main(int argc, char** argv)
{
    return disk_main(argc, argv);
}
