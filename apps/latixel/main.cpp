// latixel: the command line tool for Latixel detectors.
#include "apps/latixel/commands/commands.h"

int main(int argc, char** argv)
{
    return tool::runTool(argc, argv);
}
