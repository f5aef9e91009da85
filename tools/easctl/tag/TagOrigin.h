// Which model made a tag? The tables do not say, but the tag's own predictions do.
//
// Of the job that a tag was made from, its rows hold power and run time at the default frequency,
// but neither its memory traffic x (cache lines per instruction) nor its pace (cycles per
// instruction). Power at each other frequency is A P + B x + C: one x must explain them all. Run
// time there is T (D + (E x + F) / pace) f0 / f, cut to whole seconds: one pace must do so. Where
// the present coefficients allow both, the present model would predict the very same, and the tag
// is as good as new; where they do not, another model made it.
#pragma once

class CoEfficients;
class EnergyTag;

namespace easctl {

enum class TagOrigin {
    present_model,
    other_model,
    unclear  ///< fewer than three frequencies tell nothing
};

const char* name_of(TagOrigin origin) noexcept;

TagOrigin origin_of(const EnergyTag& tag, const CoEfficients& coeffs);

}  // namespace easctl
