// latixel: the command line tool for Latixel detectors.
#include "apps/latixel/commands.h"

int main(int argc, char** argv)
{
    return tool::runTool(argc, argv);
}
