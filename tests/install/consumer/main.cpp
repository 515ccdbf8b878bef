// A program that uses the library from outside the project.
#include <ostrevik/core.h>

#include <cstdio>

int main() {
    std::optional<ostrevik::Path> path = ostrevik::Path::parse("/world/sphere.radius");
    if (!path || path->str() != "/world/sphere.radius" || ostrevik::Path::parse("world")) {
        std::puts("path parsing failed");
        return 1;
    }
    std::puts("ok");
    return 0;
}
