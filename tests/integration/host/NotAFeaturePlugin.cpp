// A shared library that is no feature plug-in: it exports neither FeatureType nor FeatureCreate2.

extern "C" int NotAFeature() { return 0; }
