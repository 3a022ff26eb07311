-- Links between the Markdown files become links between the pages, which are in one folder, and links
-- to an interface's description lead to its page.
local function page(target)
    local path, anchor = target:match("^([^#]*)(.*)$")
    if path:match("^%a+:") then
        return target
    end
    path = path:gsub("^%.%./", ""):gsub("^docs/", "")
    path = path:gsub("^data/(com%..*)%.xml$", "%1.html")
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
