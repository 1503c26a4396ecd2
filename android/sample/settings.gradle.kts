pluginManagement {
    repositories {
        google()
        mavenCentral()
        gradlePluginPortal()
    }
}
dependencyResolutionManagement {
    repositories {
        google()
        mavenCentral()
        maven { url = uri("../../build/package/maven") } // what scripts/make-aar.sh makes
    }
}
rootProject.name = "tarnbooster-sample"
include(":app")
