#ifndef SIMRANDOM_H
#define SIMRANDOM_H

#include <QtGlobal>

// splitmix64: tiny, fast, and the same sequence with every compiler and
// standard library, which the std:: distributions do not promise. A run is
// reproducible from its seed alone.
class SimRandom
{
public:
    explicit SimRandom(quint64 seed = 1)
        : state(seed)
    {
    }

    quint64 next()
    {
        quint64 z = (state += 0x9e3779b97f4a7c15ULL);
        z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ULL;
        z = (z ^ (z >> 27)) * 0x94d049bb133111ebULL;
        return z ^ (z >> 31);
    }

    // Uniform in [0, 1), from the top 24 bits so every value is exact in a float.
    float unit() { return static_cast<float>(next() >> 40) * (1.0f / 16777216.0f); }
    float range(float low, float high) { return low + (high - low) * unit(); }
    bool chance(float probability) { return unit() < probability; }

    // Uniform in [0, bound); 0 when bound is not positive.
    int below(int bound)
    {
        return bound > 0 ? static_cast<int>(next() % static_cast<quint64>(bound)) : 0;
    }

private:
    quint64 state;
};

#endif // SIMRANDOM_H
