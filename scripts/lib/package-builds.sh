# Sourced by the scripts that install the Debian packages somewhere.
# shellcheck shell=bash

# build_packages_for RELEASE FOLDER COMMAND [DPKG-BUILDPACKAGE-OPTION...]: has the packages in
# FOLDER, built on this machine, or in a root of the release where one is given. The command is run
# there, in the folder of the packages.
build_packages_for() {
    local release=$1 packages=$2 command=$3 options=("${@:4}")
    if [[ -z $release ]]; then
        echo "building the packages (log: $packages/build.log)"
        scripts/build-packages "$packages" "${options[@]}"
        (cd "$packages" && bash -euc "$command")
        return
    fi
    local maker=build/roots/packages-$release tree=/srv/tree
    echo "building the packages on $release (log: $maker$tree/build/packages/build.log)"
    scripts/debian-root "$maker" "$release" '' packages
    mkdir "$maker$tree"
    tar --exclude=./.git --exclude='./build*' -cf "$maker$tree.tar" .
    tar -C "$maker$tree" -xf "$maker$tree.tar"
    scripts/in-root "$maker" "$tree/scripts/build-packages" "$tree/build/packages" "${options[@]}"
    scripts/in-root "$maker" bash -euc "cd $tree/build/packages; $command"
    rm -rf "$packages"
    mv "$maker$tree/build/packages" "$packages"
    rm -rf "$maker"
}

# packages_are_current FOLDER: whether those in there, for this processor, were built from the tree
# as it is.
packages_are_current() {
    local news architecture
    architecture=$(dpkg --print-architecture)
    compgen -G "$1/qor-tools_*_$architecture.deb" >/dev/null || return
    # A build leaves new files in its copy, and changes none.
    news=$(diff -rq -x .git -x 'build*' -x __pycache__ . "$1/qor" | grep -v "^Only in $1/qor" || true)
    [[ -z $news ]]
}
