// One written document that uses every statement of the text form and most value forms; the
// writer must produce it, the parser must read it back to the same bytes, and it must survive a
// trip through the crate.
#pragma once

namespace testsupport {

inline constexpr const char* kExampleText = R"(#zeltha 4.0
def group "scene" {
    float3 color = (1, 0.5, 0)
    float16 h = 0.5
    float64[2,2] m = [[1, 0], [0, 1.5]]
    str[2] names = ["a\"b", "c\nd"]
    float opacity = 1
    float opacity.timeSamples = {
        0: 0 (interp = held),
        1.5: 1,
        2: 0.25 (interp = bezier, handle = free, left = [0.5, 0], right = [0.25, 1]),
    }
    uint8 small = 7
    color3f tint = [1, 1, 1]
    reference "lib/part.zeltha" "/part"
    string note = "line one\nline two"
    unset size
    unset string owner
    connect gain = </mixer.out>
    over light {
        int count = 3
        int[] idx = [1, 2, 3]
    }
    def "child" {
    }
}

def {
}
delete "/old"
disconnect "/scene.x"
connect </lights/*.intensity> = </scene.opacity>
reorder "/scene" = [ "/scene/child", "/scene/[0]" ]
)";

}  // namespace testsupport
