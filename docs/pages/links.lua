-- Links between the Markdown files become links between the pages, which are in one folder.
local function page(target)
    local path, anchor = target:match("^([^#]*)(.*)$")
    if path:match("^%a+:") then
        return target
    end
    path = path:gsub("^%.%./", ""):gsub("^docs/", "")
    return path:gsub("^README%.md$", "index.html"):gsub("%.md$", ".html") .. anchor
end

function Link(link)
    link.target = page(link.target)
    return link
end

function Image(image)
    image.src = page(image.src)
    return image
end
